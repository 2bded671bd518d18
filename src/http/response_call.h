// ResponseCall: what stands behind the response handler that a connection gives to a route.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

#include "corvane/response_handler.h"

class VELHTTPConnection;

namespace vel {

class ConnectionEngine;

/// Takes one answer to its connection, from whatever thread it comes. Further answers are ignored
/// and logged; so is, at the end, that none came. An answer to a connection that has ended is
/// dropped.
class ResponseCall final : public ResponseSink {
 public:
  /// `engine` is a part of `connection`.
  ResponseCall(std::weak_ptr<VELHTTPConnection> connection, ConnectionEngine& engine) noexcept
      : connection_(std::move(connection)), engine_(engine) {}
  ~ResponseCall() override;

  void answer(std::shared_ptr<VELResponse> response, std::optional<VELError> error) override;
  void whenClientLeaves(const std::shared_ptr<ResponseSink>& self,
                        std::function<void()> callback) override;
  bool isAnswered() const noexcept { return is_answered_.load(std::memory_order_acquire); }

 private:
  const std::weak_ptr<VELHTTPConnection> connection_;
  // Valid while the connection lives.
  ConnectionEngine& engine_;
  std::atomic<bool> is_answered_{false};
};

}  // namespace vel
