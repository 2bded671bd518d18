// The routes that the tables talk to.
#pragma once

#include <memory>
#include <string>

#include "corvane/configuration.h"
#include "corvane/request.h"

namespace vel::test {

/// The path of a file that goes away with the process, `length` times the letter "f".
std::string fileOfLength(size_t length);

/// METHOD LENGTH KIND BYTES, where KIND is "none", "memory" or "file".
std::string describe(const VELRequest& request);

/// Adds the routes:
///   /text            "Hello", for GET and HEAD
///   /describe        `describe`, for every method that has a name here
///   /every           "METHOD", allows every method (no list)
///   /own             "METHOD", lists GET, OPTIONS and TRACE itself
///   /first           "first", for GET; /first/second "second", for GET and DELETE
///   /absolute        the URL, and whether it is secure
///   /nothing, /error, /failure, /both  what a handler may answer with instead of a response
///   /responses/...   the kinds of responses of case_responses.cpp
void addCaseRoutes(VELConfiguration& configuration);

/// Adds the routes under /responses.
void addResponseRoutes(VELConfiguration& configuration);

}  // namespace vel::test
