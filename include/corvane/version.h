// The version of the library. The build reads its number from the three macros here.
#pragma once

#include <string_view>

#include "corvane/export.h"

#define CORVANE_VERSION_MAJOR 0
#define CORVANE_VERSION_MINOR 1
#define CORVANE_VERSION_PATCH 0

/// Tells the version of the library that runs, which in a shared build may be newer than the headers
/// that the host was compiled with.
/// Shape: "MAJOR.MINOR.PATCH", for instance "0.1.0".
CORVANE_EXPORT std::string_view VELVersion() noexcept;
