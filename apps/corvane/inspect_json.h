// The description of a request that an --inspect route answers with.
#pragma once

#include <string>

#include "corvane/request.h"

/// What a route sees of `request`, as one JSON object in a fixed order of members.
/// Queue:   the connection's; it blocks on reading a body that was kept in a file.
std::string inspectJSON(const VELRequest& request);
