// VELRegularExpression and VELTextCheckingResult: matching paths and reading the parts that matched.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/error.h"
#include "corvane/export.h"

namespace vel {
class RegexEngine;
}

/// Location of a range that is not there: a group that took no part in a match.
inline constexpr size_t VELNotFound = SIZE_MAX;

/// A part of a text, in bytes.
struct CORVANE_EXPORT VELTextRange {
  size_t location = VELNotFound;
  size_t length = 0;

  friend bool operator==(const VELTextRange&, const VELTextRange&) = default;
};

/// How a pattern is read; values may be combined with `|`.
enum class VELRegularExpressionOptions : uint32_t {
  kNone = 0,
  kCaseInsensitive = 1,
  kAllowCommentsAndWhitespace = 2,
  kIgnoreMetacharacters = 4,
  kDotMatchesLineSeparators = 8,
  kAnchorsMatchLines = 16,
};

constexpr VELRegularExpressionOptions operator|(VELRegularExpressionOptions a,
                                                VELRegularExpressionOptions b) {
  return VELRegularExpressionOptions{static_cast<uint32_t>(a) | static_cast<uint32_t>(b)};
}
constexpr VELRegularExpressionOptions operator&(VELRegularExpressionOptions a,
                                                VELRegularExpressionOptions b) {
  return VELRegularExpressionOptions{static_cast<uint32_t>(a) & static_cast<uint32_t>(b)};
}

/// How a text is searched.
enum class VELMatchingOptions : uint32_t {
  kNone = 0,
  /// The match must begin where the range begins.
  kAnchored = 4,
};

/// A match: the range of the whole and of each group.
/// Owner:   a value; up to four ranges are kept without allocating.
class CORVANE_EXPORT VELTextCheckingResult {
 public:
  /// No match: no ranges.
  VELTextCheckingResult() = default;
  /// A match of `range` without groups.
  explicit VELTextCheckingResult(VELTextRange range) : count_(1) { ranges_[0] = range; }

  /// The number of groups of the pattern, and one for the whole.
  size_t numberOfRanges() const noexcept { return count_; }
  /// The range of the whole match.
  VELTextRange range() const noexcept { return ranges_[0]; }
  /// The range of group `index`; 0 is the whole match.
  /// Shape:   the location is `VELNotFound` for a group that took no part.
  /// Errors:  raises a range exception for an index beyond the last group.
  VELTextRange rangeAtIndex(size_t index) const;

  /// Adds the range of the next group.
  void addRange(VELTextRange range);

 private:
  static constexpr size_t kInlineRanges = 4;

  size_t count_ = 0;
  std::array<VELTextRange, kInlineRanges> ranges_;
  std::vector<VELTextRange> further_;
};

/// A compiled pattern, in the syntax of Perl.
///
/// ```cpp
/// auto expression = VELRegularExpression::regularExpressionWithPattern("^/users/([0-9]+)$");
/// std::string_view path = "/users/42";
/// if (auto match = expression->firstMatchInString(path)) {
///   VELTextRange id = match->rangeAtIndex(1);
///   path = path.substr(id.location, id.length);  // "42"
/// }
/// ```
/// Text is UTF-8; a text with invalid sequences is searched all the same, and they match nothing.
/// A search that takes too long, as some patterns do on some texts, is given up: it does not match,
/// and is logged.
/// Owner:   immutable and shared.
/// Queue:   any, several at once.
class CORVANE_EXPORT VELRegularExpression {
 public:
  VELRegularExpression(const VELRegularExpression&) = delete;
  VELRegularExpression& operator=(const VELRegularExpression&) = delete;
  ~VELRegularExpression();

  /// Compiles `pattern`.
  /// Errors:  none for a malformed pattern, with an error of `VELCocoaErrorDomain`.
  static std::shared_ptr<const VELRegularExpression> regularExpressionWithPattern(
      std::string_view pattern,
      VELRegularExpressionOptions options = VELRegularExpressionOptions::kNone,
      VELError* error = nullptr);
  /// The pattern that matches `string` literally.
  static std::string escapedPatternForString(std::string_view string);

  /// Searches the whole of `string`.
  std::optional<VELTextCheckingResult> firstMatchInString(
      std::string_view string, VELMatchingOptions options = VELMatchingOptions::kNone) const;
  /// Searches the part `range` of `string`, whose ends count as the ends of the text.
  /// Shape:   the ranges of the match are those of `string`.
  /// Errors:  raises a range exception when `range` does not lie within `string`.
  std::optional<VELTextCheckingResult> firstMatchInString(std::string_view string,
                                                          VELMatchingOptions options,
                                                          VELTextRange range) const;

  const std::string& pattern() const noexcept;
  VELRegularExpressionOptions options() const noexcept;
  size_t numberOfCaptureGroups() const noexcept;

  /// For the library's own use.
  const vel::RegexEngine& engine() const noexcept { return *engine_; }

 private:
  explicit VELRegularExpression(std::unique_ptr<const vel::RegexEngine> engine);

  std::unique_ptr<const vel::RegexEngine> engine_;
};
