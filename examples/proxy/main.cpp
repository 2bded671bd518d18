// A host that stands in front of another server: it tells that server who asks, and tells clients in plain
// words, with 502 or 504, when nothing came from there.
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "corvane/configuration.h"
#include "corvane/connection.h"
#include "corvane/proxy_route.h"
#include "corvane/server.h"

namespace {

class Front : public VELProxyRouteDelegate {
 public:
  void proxyRouteWillPerformProxyURLRequest(VELProxyRoute& /*proxyRoute*/,
                                            VELURLRequest& proxyURLRequest,
                                            std::shared_ptr<VELRequest> request) override {
    const std::shared_ptr<VELConnection> connection = request->connection();
    if (!connection) return;
    // Set, not added to: what a client says of itself counts for nothing.
    proxyURLRequest.setValueForHTTPHeaderField(connection->peerAddress().host, "X-Forwarded-For");
    proxyURLRequest.setValueForHTTPHeaderField(connection->isSecure() ? "https" : "http",
                                               "X-Forwarded-Proto");
  }

  void proxyRouteDecideResponseForRequest(VELProxyRoute& /*proxyRoute*/,
                                          std::shared_ptr<VELRequest> /*request*/,
                                          std::shared_ptr<const VELURLResponse> /*proxyResponse*/,
                                          std::optional<VELData> /*data*/,
                                          std::optional<VELError> error,
                                          std::shared_ptr<VELResponse> suggestedResponse,
                                          VELResponseHandler completionHandler) override {
    if (!error) return completionHandler(std::move(suggestedResponse));
    const uint64_t status = error->code() == kVELURLErrorTimedOut ? 504 : 502;
    completionHandler(VELResponse::responseWithString(
        "The server behind this one cannot be reached. Please try again later.\n",
        VELUTF8StringEncoding, status, "text/plain; charset=utf-8"));
  }
};

}  // namespace

int main(int argc, char** argv) {
  // Blocked before the library starts its threads, so that sigwait below is the one that gets them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const auto upstream = VELURL::URLWithString(argc > 2 ? argv[2] : "http://localhost:9000/");
  if (!upstream) {
    std::cerr << argv[2] << " is no URL\n";
    return EXIT_FAILURE;
  }
  auto route = std::make_shared<VELProxyRoute>("/", false);
  route->setURL(upstream);
  route->setAllowedHTTPMethods({"HEAD", "GET", "POST", "PUT", "DELETE", "PATCH", "OPTIONS"});
  // The route does not keep it.
  auto delegate = std::make_shared<Front>();
  route->setDelegate(delegate);
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->addRoute(route);

  auto server = std::make_shared<VELServer>(configuration);
  server->setInterface("localhost");
  server->setPort(static_cast<uint16_t>(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 8080));
  VELError error;
  if (!server->start(&error)) {
    std::cerr << error.localizedDescription() << '\n';
    return EXIT_FAILURE;
  }
  std::cout << "Listening on http://localhost:" << server->listeningPort() << "/" << std::endl;

  int received = 0;
  sigwait(&signals, &received);
  server->kill();
  return EXIT_SUCCESS;
}
