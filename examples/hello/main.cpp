// The smallest useful host: one route that answers with text. Start it with a port (default 8080; 0
// lets the system choose) and end it with Ctrl-C.
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>

#include "corvane/block_route.h"
#include "corvane/configuration.h"
#include "corvane/server.h"

int main(int argc, char** argv) {
  // Blocked before the library starts its threads, so that sigwait below is the one that gets them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  auto route = std::make_shared<VELBlockRoute>("/", false);
  route->setHandler([](VELRoute&, std::shared_ptr<VELRequest> request, VELResponseHandler respond) {
    respond(VELResponse::responseWithString("Hello from " + request->path() + "\n",
                                            VELUTF8StringEncoding, 200,
                                            "text/plain; charset=utf-8"));
  });
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
