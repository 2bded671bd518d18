#include "support/fake_connection.h"

#include "corvane/text_encoding.h"
#include "http/tags.h"

namespace vel::test {

std::shared_ptr<VELRoute> routeFor(std::string_view path, Handler handler,
                                   std::vector<std::string> methods) {
  auto route = std::make_shared<VELBlockRoute>(path, false);
  route->setAllowedHTTPMethods(methods);
  route->setHandler([handler = std::move(handler)](VELRoute&, std::shared_ptr<VELRequest> request,
                                                   VELResponseHandler respond) {
    handler(request, std::move(respond));
  });
  return route;
}

Handler answeringWith(std::string body) {
  return [body = std::move(body)](const std::shared_ptr<VELRequest>&, VELResponseHandler respond) {
    respond(VELResponse::responseWithData(VELData(body), 200, "text/plain"));
  };
}

std::shared_ptr<VELConfiguration> configurationWith(
    std::vector<std::shared_ptr<VELRoute>> routes,
    std::vector<std::shared_ptr<VELMiddleware>> middlewares) {
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->setRoutes(std::move(routes));
  configuration->setMiddlewares(std::move(middlewares));
  return configuration;
}

std::string withoutDates(std::string message) {
  size_t date = 0;
  while ((date = message.find("Date: ", date)) != std::string::npos) {
    message.erase(date, message.find("\r\n", date) + 2 - date);
  }
  return message;
}

FakeConnection::FakeConnection(std::shared_ptr<VELConfiguration> configuration,
                               std::shared_ptr<VELEventLoops> loops)
    : server_(std::make_shared<VELServer>(std::move(configuration), std::move(loops))),
      connection_(std::make_shared<VELHTTPConnection>(socket_, server_)) {
  server_->addConnection(connection_);
  connection_->start();
  socket_->settle();
}

FakeConnection::FakeConnection(Handler handler)
    : FakeConnection(configurationWith({routeFor("/", std::move(handler))})) {}

FakeConnection::~FakeConnection() { socket_->breakOff(); }

std::string FakeConnection::answerTo(std::string_view bytes) {
  socket_->receive(bytes);
  return withoutDates(socket_->takeOutput());
}

bool FakeConnection::isReadingHead() {
  return !socket_->wasDisconnected() && socket_->pendingRead() == kHeadLineTag;
}

}  // namespace vel::test
