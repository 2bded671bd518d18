// Dispatcher: what stands between a complete request and its route, and between the route's answer
// and the client: OPTIONS and TRACE, the middlewares, the method check. Reading and sending are
// left to others.
#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include "corvane/error.h"
#include "corvane/response.h"
#include "http/exchange.h"

namespace vel {

/// Answers a request in its route's place: OPTIONS and TRACE unless the route takes them, else what
/// the first middleware with an answer says. None when the route is next. Notes in the exchange
/// which middlewares were asked. `allowedMethods` are the route's.
std::shared_ptr<VELResponse> answerInPlaceOfRoute(Exchange& exchange,
                                                  const VELMethodList& allowedMethods);

void logUncaughtException(const std::exception_ptr& exception) noexcept;

/// Runs `work`, the route's part of a request.
/// Errors:  what it throws is logged and thrown on.
template <typename Work>
void runLoggingExceptions(Work&& work) {
  try {
    std::forward<Work>(work)();
  } catch (...) {
    logUncaughtException(std::current_exception());
    throw;
  }
}

/// Lets the middlewares that were asked see the response, or the error while there is no response,
/// in reverse order; each may replace the response.
std::shared_ptr<VELResponse> passedThroughMiddlewares(Exchange& exchange,
                                                      std::shared_ptr<VELResponse> response,
                                                      const std::optional<VELError>& error);

}  // namespace vel
