// VELBlockRoute: forwards to the host's callback.
#include "corvane/block_route.h"

#include <utility>

#include "corvane/responses.h"

VELBlockRoute::~VELBlockRoute() = default;

void VELBlockRoute::evaluateWithRequest(std::shared_ptr<VELRequest> request,
                                        VELResponseHandler responseHandler) {
  std::shared_ptr<const Handler> handler;
  {
    const std::lock_guard lock(handler_mutex_);
    handler = handler_;
  }
  if (!handler) {
    responseHandler(std::make_shared<VELNotFoundResponse>());
    return;
  }
  (*handler)(*this, std::move(request), std::move(responseHandler));
}

VELBlockRoute::Handler VELBlockRoute::handler() const {
  const std::lock_guard lock(handler_mutex_);
  return handler_ ? *handler_ : Handler();
}

void VELBlockRoute::setHandler(Handler handler) {
  std::shared_ptr<const Handler> stored;
  if (handler) stored = std::make_shared<const Handler>(std::move(handler));
  // What was there before goes away after the lock.
  const std::lock_guard lock(handler_mutex_);
  handler_.swap(stored);
}
