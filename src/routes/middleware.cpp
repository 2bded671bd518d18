// What a middleware does that does not override an operation: nothing.
#include "corvane/middleware.h"

std::shared_ptr<VELResponse> VELMiddleware::evaluateRequest(VELRequest& /*request*/,
                                                            VELRoute& /*route*/) {
  return nullptr;
}

std::shared_ptr<VELResponse> VELMiddleware::evaluateResponse(std::shared_ptr<VELResponse> response,
                                                             VELRequest& /*request*/) {
  return response;
}

std::shared_ptr<VELResponse> VELMiddleware::evaluateError(const VELError& /*error*/,
                                                          VELRequest& /*request*/) {
  return nullptr;
}
