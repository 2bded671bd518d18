// MemorySocket: a stream socket over one end of a memory pipe.
#pragma once

#include <memory>
#include <utility>

#include "platform/memory_pipe.h"
#include "platform/stream_socket.h"

namespace vel {

/// Behaves in everything as an accepted or connected TCP socket; it has no addresses.
class MemorySocket final : public StreamSocket {
 public:
  MemorySocket(std::unique_ptr<MemoryEnd> end, std::shared_ptr<VELSerialQueue> queue);
  ~MemorySocket() override;

  /// Errors:  these two always fail: the socket is connected from the beginning.
  bool acceptOnInterface(const std::optional<std::string>& interface, uint16_t port,
                         VELError* error) override;
  bool connectToHost(const std::string& host, uint16_t port, std::chrono::milliseconds timeout,
                     VELError* error) override;
  VELSocketAddress localAddress() const override { return {}; }
  VELSocketAddress peerAddress() const override { return {}; }

 private:
  ptrdiff_t receiveBytes(void* buffer, size_t capacity) noexcept override;
  ptrdiff_t sendBytes(const iovec* vectors, int count, bool has_more) noexcept override;
  void finishSending() noexcept override { end_->finishSending(); }
  bool watch(EventLoop& loop) noexcept override;
  void stopWatching(EventLoop& loop) noexcept override;
  void closeTransport() noexcept override { end_->close(); }

  const std::unique_ptr<MemoryEnd> end_;
};

}  // namespace vel
