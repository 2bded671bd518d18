// What the heads of answers in part say, and the delimiters between several parts (RFC 9110 §14.4 and
// §14.6).
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "corvane/range.h"

namespace vel {

/// The value of "Content-Range" for `range` of `total` bytes. The last position is computed modulo 2^64.
std::string contentRange(VELRange range, uint64_t total);

/// The framing of a body of several parts, with a fresh boundary.
///
///   MultipartFraming framing(total);
///   framing.partHeader(ranges[0]) ... bytes ... framing.partHeader(ranges[1]) ... bytes ...
///   framing.closingDelimiter()
///
/// A part has no field but "Content-Range", and the first one begins with an empty line.
class MultipartFraming {
 public:
  explicit MultipartFraming(uint64_t total);

  /// The value of "Content-Type".
  std::string contentType() const;
  std::string partHeader(VELRange range) const;
  std::string closingDelimiter() const;
  /// The length of a body of `ranges`, framing included.
  uint64_t bodyLength(std::span<const VELRange> ranges) const;

 private:
  uint64_t total_;
  std::string boundary_;
};

}  // namespace vel
