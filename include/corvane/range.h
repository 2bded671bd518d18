// VELRange: a run of bytes within a larger whole, and its boxed form.
#pragma once

#include <cstdint>
#include <string>

#include "corvane/export.h"

/// `length` bytes from the byte at `location` on. Sums of both are modulo 2^64.
///
/// ```cpp
/// VELRange head{0, 10};
/// VELRange tail{10, 5};
/// bool isAdjacent = VELRangeIntersection(head, tail) == VELRange{10, 0};
/// bool isFirst = VELRangeCompare(head, tail) < 0;
/// ```
struct VELRange {
  uint64_t location = 0;
  uint64_t length = 0;

  friend bool operator==(const VELRange&, const VELRange&) = default;
};

/// The smallest range that holds both, and what is between them.
CORVANE_EXPORT VELRange VELRangeUnion(VELRange a, VELRange b) noexcept;

/// The bytes that both have.
/// Shape:   ranges that only touch give no bytes at the later location; ranges that are apart give
///          {0, 0}.
CORVANE_EXPORT VELRange VELRangeIntersection(VELRange a, VELRange b) noexcept;

/// Compares by location, then by length.
/// Shape:   -1, 0 or 1.
CORVANE_EXPORT int VELRangeCompare(VELRange a, VELRange b) noexcept;

/// A box around two numbers, with a tag that says what they are.
///
/// ```cpp
/// VELValue box = VELValue::valueWithVELRange({20, 10});
/// VELRange range = box.VELRangeValue();
/// bool isRange = box.typeTag() == "{VELRange=QQ}";
/// VELValue point("{Point=QQ}", 3, 4);
/// ```
class CORVANE_EXPORT VELValue {
 public:
  /// A box of any kind.
  VELValue(std::string typeTag, uint64_t first, uint64_t second);
  /// A box of a range, tagged "{VELRange=QQ}".
  static VELValue valueWithVELRange(VELRange range);

  const std::string& typeTag() const noexcept { return typeTag_; }
  /// The range in the box.
  /// Errors:  a box with another tag raises "Value does not contain a VELRange struct".
  VELRange VELRangeValue() const;

  friend bool operator==(const VELValue&, const VELValue&) = default;

 private:
  std::string typeTag_;
  uint64_t first_;
  uint64_t second_;
};
