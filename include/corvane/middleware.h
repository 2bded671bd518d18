// VELMiddleware: what a host lets happen around every routed request.
#pragma once

#include <memory>
#include <string>

#include "corvane/error.h"
#include "corvane/export.h"
#include "corvane/request.h"
#include "corvane/response.h"

class VELRoute;

/// Called around every routed request. Each operation has a default that changes nothing.
///
/// ```cpp
/// struct NoStore : VELMiddleware {
///   std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse> response,
///                                                 VELRequest&) override {
///     response->setValueForHeader("no-store", "Cache-Control");
///     return response;
///   }
/// };
/// ```
/// Owner:   shared by the configuration and all connections; keeps nothing about one request.
/// Queue:   each connection's own, several at once.
class CORVANE_EXPORT VELMiddleware {
 public:
  virtual ~VELMiddleware() = default;
  /// Before the route, in the configuration's order. A response answers in the route's place.
  virtual std::shared_ptr<VELResponse> evaluateRequest(VELRequest& request, VELRoute& route);
  /// Once a response is known, in reverse order, for each middleware that was asked before.
  /// The result replaces the response; none clears it.
  virtual std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse> response,
                                                        VELRequest& request);
  /// In the same walk while there is an error and no response. A result becomes the response.
  virtual std::shared_ptr<VELResponse> evaluateError(const VELError& error, VELRequest& request);
};
