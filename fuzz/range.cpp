// Range requests: the ranges that a field asks for, against a plain reading that compares every pair. The
// first line of an input is the length of the body, the rest the field.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/range_request.h"
#include "support/plain_text.h"
#include "support/require.h"

namespace vel::fuzz {
namespace {

/// From the first byte up to the one before `end`; wide enough that nothing wraps.
__extension__ using Wide = unsigned __int128;
struct Span {
  Wide begin;
  Wide end;
};

std::optional<Wide> plainNumber(std::string_view text) {
  const std::string terminated(text);
  char* end = nullptr;
  errno = 0;
  const uint64_t value = std::strtoull(terminated.c_str(), &end, 10);
  if (errno != 0 || end == terminated.c_str()) return std::nullopt;
  return value;
}

std::optional<Span> plainSpan(std::string_view piece, Wide length) {
  const std::vector<std::string_view> sides = plainlySplit(piece, '-');
  const auto first = plainNumber(sides[0]);
  if (sides.size() == 1) return first ? std::optional(Span{*first, *first + 1}) : std::nullopt;
  const auto last = plainNumber(piece.substr(sides[0].size() + 1));
  if (first && last && *last < *first) return std::nullopt;
  if (first) return Span{*first, last ? *last + 1 : std::max(*first + 1, length)};
  if (last && *last <= length) return Span{length - *last, length};
  return std::nullopt;
}

/// None when the field does not count.
std::vector<Span> plainSpans(std::string_view field, Wide length) {
  const std::vector<std::string_view> parts = plainlySplit(field, '=');
  if (parts.size() < 2) return {};
  std::string unit(parts[0]);
  unit.erase(0, unit.find_first_not_of(" \t"));
  unit.erase(unit.find_last_not_of(" \t") + 1);
  for (char& c : unit) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (unit != "bytes") return {};
  std::vector<Span> spans;
  for (const std::string_view piece : plainlySplit(field.substr(parts[0].size() + 1), ',')) {
    const auto span = plainSpan(piece, length);
    if (!span || span->end > length) return {};
    for (const Span& other : spans) {
      if (std::max(span->begin, other.begin) < std::min(span->end, other.end)) return {};
    }
    spans.push_back(*span);
  }
  std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) {
    return a.begin != b.begin ? a.begin < b.begin : a.end < b.end;
  });
  return spans;
}

void checkRanges(std::string_view input) {
  const size_t line = std::min(input.find('\n'), input.size());
  const auto length = static_cast<uint64_t>(plainNumber(input.substr(0, line)).value_or(0));
  const std::string_view field = input.substr(std::min(line + 1, input.size()));
  const std::vector<VELRange> ranges = requestedRanges(field, length);
  const std::vector<Span> spans = plainSpans(field, length);
  require(ranges.size() == spans.size(), "as many ranges");
  for (size_t i = 0; i < ranges.size(); ++i) {
    require(ranges[i].location == spans[i].begin, "where a range begins");
    require(ranges[i].length == spans[i].end - spans[i].begin, "how long a range is");
  }
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::checkRanges({reinterpret_cast<const char*>(data), size});
  return 0;
}
