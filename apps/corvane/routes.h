// The routes that the command line can ask for.
#pragma once

#include <memory>
#include <vector>

#include "corvane/route.h"
#include "options.h"

/// The routes that `options` ask for, in order.
std::vector<std::shared_ptr<VELRoute>> makeRoutes(const ServeOptions& options);
