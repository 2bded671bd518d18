// A small host against the installed library: what crosses its edge is used here, classes to derive
// from, exceptions to catch and virtual functions to override.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "corvane/block_route.h"
#include "corvane/configuration.h"
#include "corvane/error.h"
#include "corvane/response.h"
#include "corvane/route.h"
#include "corvane/server.h"
#include "corvane/version.h"

namespace {

class VersionRoute : public VELRoute {
 public:
  using VELRoute::VELRoute;
  void evaluateWithRequest(std::shared_ptr<VELRequest>, VELResponseHandler respond) override {
    respond(VELResponse::responseWithString(VELVersion(), 4, 200, "text/plain"));
  }
};

bool misuseIsCaught() {
  try {
    VELConfiguration().removeRouteAtIndex(0);
  } catch (const VELException& exception) {
    return exception.name() == VELRangeException;
  }
  return false;
}

// Connections that come and go at once, which make and end all that belongs to one.
bool outlivesConnections(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int i = 0; i < 500; ++i) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      return false;
    ::close(fd);
  }
  return true;
}

}  // namespace

int main() {
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->addRoute(std::make_shared<VersionRoute>("/version", false));
  configuration->addRoute(std::make_shared<VELBlockRoute>("/", false));
  auto server = std::make_shared<VELServer>(configuration);
  server->setInterface("localhost");

  VELError error;
  if (!server->start(&error)) {
    std::fprintf(stderr, "%s\n", error.description().c_str());
    return 1;
  }
  const bool good =
      server->isRunning() && misuseIsCaught() && outlivesConnections(server->listeningPort());
  server->kill();
  std::printf("corvane %s from an installed package: %s\n", VELVersion().data(),
              good ? "works" : "FAILS");
  return good ? 0 : 1;
}
