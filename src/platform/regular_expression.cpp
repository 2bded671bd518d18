// The public classes of regular expressions; matching itself is the engine's.
#include "corvane/regular_expression.h"

#include <utility>

#include "platform/regex_engine.h"

VELTextRange VELTextCheckingResult::rangeAtIndex(size_t index) const {
  if (index >= count_) throw VELException(VELRangeException, "No range at this index of a match");
  return index < kInlineRanges ? ranges_[index] : further_[index - kInlineRanges];
}

void VELTextCheckingResult::addRange(VELTextRange range) {
  if (count_ < kInlineRanges) {
    ranges_[count_] = range;
  } else {
    further_.push_back(range);
  }
  ++count_;
}

VELRegularExpression::VELRegularExpression(std::unique_ptr<const vel::RegexEngine> engine)
    : engine_(std::move(engine)) {}

VELRegularExpression::~VELRegularExpression() = default;

std::shared_ptr<const VELRegularExpression> VELRegularExpression::regularExpressionWithPattern(
    std::string_view pattern, VELRegularExpressionOptions options, VELError* error) {
  auto engine = vel::RegexEngine::compile(pattern, options, error);
  if (!engine) return nullptr;
  return std::shared_ptr<const VELRegularExpression>(new VELRegularExpression(std::move(engine)));
}

std::string VELRegularExpression::escapedPatternForString(std::string_view string) {
  constexpr std::string_view kMetacharacters = "\\*?+[](){}^$|.";
  std::string escaped;
  escaped.reserve(string.size());
  for (const char c : string) {
    if (kMetacharacters.find(c) != std::string_view::npos) escaped.push_back('\\');
    escaped.push_back(c);
  }
  return escaped;
}

std::optional<VELTextCheckingResult> VELRegularExpression::firstMatchInString(
    std::string_view string, VELMatchingOptions options) const {
  return engine_->firstMatch(string, options, {0, string.size()});
}

std::optional<VELTextCheckingResult> VELRegularExpression::firstMatchInString(
    std::string_view string, VELMatchingOptions options, VELTextRange range) const {
  if (range.location > string.size() || range.length > string.size() - range.location) {
    throw VELException(VELRangeException, "The range does not lie within the string");
  }
  return engine_->firstMatch(string, options, range);
}

const std::string& VELRegularExpression::pattern() const noexcept { return engine_->pattern(); }

VELRegularExpressionOptions VELRegularExpression::options() const noexcept {
  return engine_->options();
}

size_t VELRegularExpression::numberOfCaptureGroups() const noexcept {
  return engine_->numberOfCaptureGroups();
}
