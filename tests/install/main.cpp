// A small host against the installed library: what crosses its edge is used here, classes to derive
// from, exceptions to catch and virtual functions to override.
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
  const bool good = server->isRunning() && server->listeningPort() != 0 && misuseIsCaught();
  server->kill();
  std::printf("corvane %s from an installed package: %s\n", VELVersion().data(),
              good ? "works" : "FAILS");
  return good ? 0 : 1;
}
