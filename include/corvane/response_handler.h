// VELResponseHandler: the callback by which a route, from any thread, hands over its answer.
#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "corvane/error.h"
#include "corvane/export.h"
#include "corvane/response.h"

namespace vel {
/// For the library's own use: where the answer of a response handler goes. It is asked as often as
/// the handler is called, and ends with the handler's last copy: it looks after second and missing
/// calls.
class ResponseSink {
 public:
  ResponseSink() = default;
  ResponseSink(const ResponseSink&) = delete;
  ResponseSink& operator=(const ResponseSink&) = delete;
  virtual ~ResponseSink() = default;
  /// Queue:   any thread.
  virtual void answer(std::shared_ptr<VELResponse> response, std::optional<VELError> error) = 0;
  /// `self` is this object.
  /// Queue:   any thread.
  virtual void whenClientLeaves(const std::shared_ptr<ResponseSink>& /*self*/,
                                std::function<void()> /*callback*/) {}
};
}  // namespace vel

/// Takes one answer: a response, an error, or neither (which the connection answers with 404).
///
/// ```cpp
/// VELResponseHandler handler([](std::shared_ptr<VELResponse> response, std::optional<VELError>) {
///   bool answered = response != nullptr;
///   (void)answered;
/// });
/// handler(std::make_shared<VELResponse>());
/// ```
/// Owner:   copies stand for the same answer. Keep one until it is called.
/// Queue:   any thread.
/// Errors:  a second call is ignored and logged; when the last copy goes away without a call, that
///          is logged too, and the client waits until it disconnects.
class CORVANE_EXPORT VELResponseHandler {
 public:
  using Callback =
      std::function<void(std::shared_ptr<VELResponse> response, std::optional<VELError> error)>;

  /// A handler of a host's own, to pass on to another route or to try one.
  VELResponseHandler(Callback callback);  // NOLINT(google-explicit-constructor)
  /// The same for a function or lambda.
  template <typename Function>
  requires(!std::same_as<std::remove_cvref_t<Function>, VELResponseHandler> &&
           std::invocable<Function&, std::shared_ptr<VELResponse>, std::optional<VELError>>)
      // NOLINTNEXTLINE(google-explicit-constructor, bugprone-forwarding-reference-overload)
      VELResponseHandler(Function&& function)
      : VELResponseHandler(Callback(std::forward<Function>(function))) {}
  explicit VELResponseHandler(std::shared_ptr<vel::ResponseSink> sink);

  void operator()(std::shared_ptr<VELResponse> response,
                  std::optional<VELError> error = std::nullopt) const;

  /// Has `callback` called, at most once, when the client goes before there is an answer, so that nobody works
  /// on for nothing. A client that closes its sending direction only counts as gone. A later call replaces an
  /// earlier one's callback; a handler of a host's own never calls it.
  /// Queue:   calling: any. `callback`: the connection's.
  void whenClientLeaves(std::function<void()> callback) const;

 private:
  std::shared_ptr<vel::ResponseSink> sink_;
};
