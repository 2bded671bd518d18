// Where a proxied request goes: the upstream's base location with what the request adds to it.
#pragma once

#include <optional>
#include <string_view>

#include "corvane/url.h"

namespace vel {

/// The location for a request: the path of `base` with `remainder` behind it, and the request's query.
/// Shape:   a base that is no URL of a host stays as it is.
/// Errors:  none for a remainder whose ".." would climb above the base path.
std::optional<VELURL> upstreamLocation(const VELURL& base, std::string_view remainder,
                                       const std::optional<VELURL>& requested);

}  // namespace vel
