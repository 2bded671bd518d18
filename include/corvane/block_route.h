// VELBlockRoute: a route that the host answers with a callback.
#pragma once

#include <functional>
#include <memory>

#include "corvane/export.h"
#include "corvane/route.h"

/// Forwards each request to the host's callback; without one it answers 404.
///
/// ```cpp
/// auto route = std::make_shared<VELBlockRoute>("/hello", false);
/// route->setHandler([](VELRoute&, std::shared_ptr<VELRequest>, VELResponseHandler respond) {
///   respond(VELResponse::responseWithString("Hello", 4, 200, "text/plain; charset=utf-8"));
/// });
/// ```
class CORVANE_EXPORT VELBlockRoute : public VELRoute {
 public:
  /// Queue:   each connection's own, several at once; it may block.
  using Handler = std::function<void(VELRoute& route, std::shared_ptr<VELRequest> request,
                                     VELResponseHandler responseHandler)>;

  using VELRoute::VELRoute;
  ~VELBlockRoute() override;

  void evaluateWithRequest(std::shared_ptr<VELRequest> request,
                           VELResponseHandler responseHandler) override;

  /// Default: none, and every request is answered with 404.
  Handler handler() const;
  void setHandler(Handler handler);

 private:
  mutable std::mutex handler_mutex_;
  std::shared_ptr<const Handler> handler_;
};
