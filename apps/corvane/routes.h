// The routes that the command line can ask for.
#pragma once

#include <memory>
#include <vector>

#include "corvane/route.h"
#include "options.h"

/// The routes in the order of `options`; without any, one that welcomes under "/".
std::vector<std::shared_ptr<VELRoute>> makeRoutes(const std::vector<RouteOption>& options);
