// The immutable state of a configuration between two edits, shared by every connection accepted
// meanwhile. VELConfiguration makes it; connections only read it.
#pragma once

#include <memory>

#include "corvane/configuration.h"
#include "http/route_index.h"

namespace vel {

struct ConfigurationSnapshot {
  VELConfiguration::Routes routes;
  VELConfiguration::Middlewares middlewares;
  VELConfiguration::Variables variables;
  VELCertificateList certificates;
  double keep_alive_interval = 15.0;
  VELLimits limits;
  VELProfile profile = VELProfile::kClassic;
  // Finds the first matching route; has a cache of its own, so it is shared as part of the snapshot.
  RouteIndex route_index;
};

}  // namespace vel
