// The arithmetic of ranges, and their boxes.
#include "corvane/range.h"

#include <algorithm>
#include <utility>

#include "corvane/error.h"

namespace {

constexpr char kRangeTag[] = "{VELRange=QQ}";

uint64_t endOf(VELRange range) noexcept { return range.location + range.length; }

int compare(uint64_t a, uint64_t b) noexcept { return a == b ? 0 : a < b ? -1 : 1; }

}  // namespace

VELRange VELRangeUnion(VELRange a, VELRange b) noexcept {
  const uint64_t location = std::min(a.location, b.location);
  return {location, std::max(endOf(a), endOf(b)) - location};
}

VELRange VELRangeIntersection(VELRange a, VELRange b) noexcept {
  if (endOf(a) < b.location || endOf(b) < a.location) return {};
  const uint64_t location = std::max(a.location, b.location);
  return {location, std::min(endOf(a), endOf(b)) - location};
}

int VELRangeCompare(VELRange a, VELRange b) noexcept {
  const int byLocation = compare(a.location, b.location);
  return byLocation != 0 ? byLocation : compare(a.length, b.length);
}

VELValue::VELValue(std::string typeTag, uint64_t first, uint64_t second)
    : typeTag_(std::move(typeTag)), first_(first), second_(second) {}

VELValue VELValue::valueWithVELRange(VELRange range) {
  return {kRangeTag, range.location, range.length};
}

VELRange VELValue::VELRangeValue() const {
  if (typeTag_ != kRangeTag) {
    throw VELException(VELInvalidArgumentException, "Value does not contain a VELRange struct");
  }
  return {first_, second_};
}
