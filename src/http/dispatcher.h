// Dispatcher: what stands between a complete request and its route, and between the route's answer and
// the client: OPTIONS and TRACE, the middlewares, the method check. Reading and sending are left to
// others.
#pragma once

#include <memory>
#include <optional>

#include "corvane/error.h"
#include "corvane/response.h"
#include "corvane/response_handler.h"
#include "http/exchange.h"

namespace vel {

/// Answers a request in its route's place: OPTIONS and TRACE unless the route takes them, then the
/// middlewares in order, then 405 for a method that the route does not take. None when the route is to
/// be evaluated. Notes in the exchange which middlewares were asked.
std::shared_ptr<VELResponse> answerInPlaceOfRoute(Exchange& exchange);

/// Evaluates the route.
/// Errors:  what it throws is logged and thrown on.
void evaluateRoute(VELRoute& route, std::shared_ptr<VELRequest> request,
                   VELResponseHandler handler);

/// Lets the middlewares that were asked see the response, or the error while there is no response, in
/// reverse order; each may replace the response.
std::shared_ptr<VELResponse> passedThroughMiddlewares(Exchange& exchange,
                                                      std::shared_ptr<VELResponse> response,
                                                      const std::optional<VELError>& error);

}  // namespace vel
