// What a route's match leaves of the path of a request.
#pragma once

#include <string>

#include "corvane/request.h"

namespace vel {

/// What follows the match in the request's path, without the slash between the two. A match elsewhere than at
/// the front is a mere condition, unless the path begins with the same text.
std::string pathBehindMatch(const VELRequest& request);

}  // namespace vel
