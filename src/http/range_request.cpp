#include "http/range_request.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "http/habits.h"
#include "platform/ascii.h"
#include "platform/number.h"

namespace vel {

namespace {

std::optional<uint64_t> position(std::string_view text) {
  return parseNumber(text, NumberGrammar::kDecimal);
}

std::optional<VELRange> rangeUpToEnd(uint64_t first, uint64_t contentLength) {
  if (first >= contentLength) return std::nullopt;
  return VELRange{first, contentLength - first};
}

// One of "first-last", "first-" and "-suffix", or a habit. A side that is no number, one that does not fit
// too, counts as missing.
std::optional<VELRange> requestedRange(std::string_view piece, uint64_t contentLength) {
  const size_t hyphen = piece.find('-');
  if (hyphen == std::string_view::npos) {
    const auto number = position(piece);
    return number ? rangeOfSingleNumber(*number, contentLength) : std::nullopt;
  }
  const auto first = position(piece.substr(0, hyphen));
  const auto last = position(piece.substr(hyphen + 1));
  if (first && last) return rangeBetween(*first, *last, contentLength);
  if (first) return rangeUpToEnd(*first, contentLength);
  return last ? rangeOfSuffix(*last, contentLength) : std::nullopt;
}

// Neighbours stand for all pairs. No range reaches beyond the body, so no sum wraps; without an overlap of
// neighbours each range ends where the next one begins or before, hence before all later ones too. Ranges
// without bytes begin at the end of the body, so none lies within another.
bool haveOverlap(const std::vector<VELRange>& sorted) {
  for (size_t next = 1; next < sorted.size(); ++next) {
    if (VELRangeIntersection(sorted[next - 1], sorted[next]).length != 0) return true;
  }
  return false;
}

}  // namespace

std::vector<VELRange> requestedRanges(std::string_view field, uint64_t contentLength) {
  const size_t equals = field.find('=');
  if (equals == std::string_view::npos) return {};
  if (!equalsIgnoringCase(trimmed(field.substr(0, equals)), "bytes")) return {};
  std::string_view set = trimmed(field.substr(equals + 1));
  std::vector<VELRange> ranges;
  for (size_t comma = 0; comma != std::string_view::npos;) {
    comma = set.find(',');
    const auto range = requestedRange(set.substr(0, comma), contentLength);
    if (!range) return {};
    ranges.push_back(*range);
    if (comma != std::string_view::npos) set.remove_prefix(comma + 1);
  }
  std::sort(ranges.begin(), ranges.end(),
            [](VELRange a, VELRange b) { return VELRangeCompare(a, b) < 0; });
  if (haveOverlap(ranges)) return {};
  return ranges;
}

}  // namespace vel
