// What a request's "Range" field asks for (RFC 9110 §14.2), measured against the body that is about to be
// sent.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "corvane/range.h"

namespace vel {

/// The ranges that `field` asks for, sorted, of a body of `contentLength` bytes. Every one lies within the
/// body, and no two overlap. None when any part of the field is wrong or asks for what there is not: the
/// field then counts for nothing.
std::vector<VELRange> requestedRanges(std::string_view field, uint64_t contentLength);

}  // namespace vel
