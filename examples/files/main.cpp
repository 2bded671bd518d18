// A host that publishes a directory, and keeps to itself what hidden files are for: a delegate answers
// with 404 whatever lies behind a name that begins with a dot.
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "corvane/configuration.h"
#include "corvane/file_route.h"
#include "corvane/responses.h"
#include "corvane/server.h"

namespace {

class NoDotFiles : public VELFileRouteDelegate {
 public:
  void fileRouteDecideResponseForFileAtURL(VELFileRoute& fileRoute, const VELURL& fileURL,
                                           std::shared_ptr<VELRequest> /*request*/,
                                           std::shared_ptr<VELResponse> suggestedResponse,
                                           VELResponseHandler responseHandler) override {
    // Names above the root are nobody's business.
    const std::string root = fileRoute.rootURL().value_or(VELURL()).filePath();
    std::string path = fileURL.filePath();
    if (path.starts_with(root)) path.erase(0, root.size());
    const bool isHidden = path.starts_with('.') || path.find("/.") != std::string::npos;
    if (isHidden) suggestedResponse = std::make_shared<VELNotFoundResponse>();
    responseHandler(std::move(suggestedResponse));
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

  const VELURL directory = VELURL::fileURLWithPath(argc > 2 ? argv[2] : ".");
  auto route = VELFileRoute::routeWithPath("/", directory);
  // The route does not keep it.
  auto delegate = std::make_shared<NoDotFiles>();
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
