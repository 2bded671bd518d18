// RegexEngine: what stands behind VELRegularExpression. A pattern that is "^" and literal text is
// compared without the regular-expression library, and tells its text for an index of routes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/regular_expression.h"

namespace vel {

/// The literal text that a pattern matches at the start of a range, and nothing else.
struct LiteralPrefix {
  std::string_view text;
  /// True only for texts that are ASCII throughout.
  bool ignoresCase = false;
  /// True when comparing ASCII letters is not enough for subjects beyond ASCII: "k" and "s" also
  /// match U+212A and U+017F.
  bool hasWideFolds = false;
};

/// True when `prefix` alone decides whether `subject` matches. Else ask the expression.
bool literalPrefixDecides(const LiteralPrefix& prefix, std::string_view subject) noexcept;

/// True when `subject` begins with `prefix`; only meaningful where the prefix decides.
bool literalPrefixMatches(const LiteralPrefix& prefix, std::string_view subject) noexcept;

class RegexEngine {
 public:
  /// None, with `error` set, for a malformed pattern.
  static std::unique_ptr<const RegexEngine> compile(std::string_view pattern,
                                                    VELRegularExpressionOptions options,
                                                    VELError* error);
  RegexEngine(const RegexEngine&) = delete;
  RegexEngine& operator=(const RegexEngine&) = delete;
  ~RegexEngine();

  const std::string& pattern() const noexcept { return pattern_; }
  VELRegularExpressionOptions options() const noexcept { return options_; }
  size_t numberOfCaptureGroups() const noexcept { return groups_; }

  /// The literal text, when the pattern is nothing but "^" and literal text.
  const std::optional<LiteralPrefix>& literalPrefix() const noexcept { return prefix_; }

  /// What every match begins with, at the start of its range; empty when that is not known. A look at it
  /// spares most searches.
  std::string_view requiredHead() const noexcept {
    return prefix_ ? std::string_view() : std::string_view(literal_);
  }

  /// The first match within `range`, which lies within `string`.
  std::optional<VELTextCheckingResult> firstMatch(std::string_view string,
                                                  VELMatchingOptions options,
                                                  VELTextRange range) const;

 private:
  /// The compiled pattern; a type of the library's that only the implementation knows.
  struct Code;

  RegexEngine(std::string_view pattern, VELRegularExpressionOptions options);
  bool compileCode(VELError* error);
  std::optional<VELTextCheckingResult> matchCode(std::string_view subject,
                                                 VELMatchingOptions options, size_t shift) const;
  void logGivenUp(int code) const;

  const std::string pattern_;
  const VELRegularExpressionOptions options_;
  /// What `prefix_` points into; without one, the required head.
  std::string literal_;
  std::optional<LiteralPrefix> prefix_;
  size_t groups_ = 0;
  /// None for a literal that needs no library.
  std::unique_ptr<const Code> code_;
  /// Second of the monotonic clock in which giving up was logged last.
  mutable std::atomic<int64_t> lastLogged_{INT64_MIN};
};

}  // namespace vel
