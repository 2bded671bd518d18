// Matching: literals by comparison, everything else by PCRE2 with its JIT compiler under limits.
#include "platform/regex_engine.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>

#include "platform/ascii.h"
#include "platform/log.h"
#include "platform/utf8.h"

namespace vel {
namespace {

// Some milliseconds of work: far beyond what a sensible pattern needs on a path of 8,000 bytes.
constexpr uint32_t kMatchLimit = 500'000;
constexpr uint32_t kDepthLimit = 100'000;
constexpr uint32_t kHeapLimitKiB = 16 * 1024;
constexpr size_t kJitStackStart = size_t{32} * 1024;
constexpr size_t kJitStackMaximum = size_t{512} * 1024;
constexpr uint32_t kInitialPairs = 16;

/// What a thread needs to match; made at its first match and kept, so that matching does not allocate.
class MatchScratch {
 public:
  MatchScratch()
      : context_(pcre2_match_context_create(nullptr)),
        stack_(pcre2_jit_stack_create(kJitStackStart, kJitStackMaximum, nullptr)) {
    if (context_ == nullptr) return;
    pcre2_set_match_limit(context_, kMatchLimit);
    pcre2_set_depth_limit(context_, kDepthLimit);
    pcre2_set_heap_limit(context_, kHeapLimitKiB);
    if (stack_ != nullptr) pcre2_jit_stack_assign(context_, nullptr, stack_);
  }
  MatchScratch(const MatchScratch&) = delete;
  MatchScratch& operator=(const MatchScratch&) = delete;
  ~MatchScratch() {
    pcre2_match_data_free(data_);
    pcre2_match_context_free(context_);
    pcre2_jit_stack_free(stack_);
  }

  pcre2_match_context* context() const { return context_; }

  /// Room for `pairs` ranges; null when there is no memory.
  pcre2_match_data* data(uint32_t pairs) {
    if (pairs > pairs_) {
      pcre2_match_data_free(data_);
      pairs_ = std::max(pairs, kInitialPairs);
      data_ = pcre2_match_data_create(pairs_, nullptr);
      if (data_ == nullptr) pairs_ = 0;
    }
    return data_;
  }

 private:
  pcre2_match_context* const context_;
  pcre2_jit_stack* const stack_;
  pcre2_match_data* data_ = nullptr;
  uint32_t pairs_ = 0;
};

bool has(VELRegularExpressionOptions options, VELRegularExpressionOptions option) {
  return (options & option) == option;
}

uint32_t compileOptions(VELRegularExpressionOptions options) {
  using Options = VELRegularExpressionOptions;
  uint32_t result = PCRE2_UTF | PCRE2_MATCH_INVALID_UTF;
  if (has(options, Options::kCaseInsensitive)) result |= PCRE2_CASELESS;
  if (has(options, Options::kIgnoreMetacharacters)) return result | PCRE2_LITERAL;
  result |= PCRE2_NEVER_BACKSLASH_C;
  if (has(options, Options::kAllowCommentsAndWhitespace)) result |= PCRE2_EXTENDED;
  if (has(options, Options::kDotMatchesLineSeparators)) result |= PCRE2_DOTALL;
  if (has(options, Options::kAnchorsMatchLines)) result |= PCRE2_MULTILINE;
  return result;
}

/// What a pattern begins with.
struct LiteralHead {
  std::string text;
  /// What follows it in the pattern; empty when there is no more.
  std::string_view rest;
};

/// The text that `pattern` matches literally after its "^"; none when it does not begin like that.
std::optional<LiteralHead> literalAfterAnchor(std::string_view pattern,
                                              VELRegularExpressionOptions options) {
  constexpr std::string_view kMetacharacters = "*?+[(){^$|.";
  const bool plain = options == VELRegularExpressionOptions::kNone ||
                     options == VELRegularExpressionOptions::kCaseInsensitive;
  if (!plain || !pattern.starts_with('^') || !isValidUTF8(pattern)) return std::nullopt;
  LiteralHead head{{}, pattern.substr(1)};
  while (!head.rest.empty()) {
    const bool is_escaped = head.rest[0] == '\\';
    const char c = is_escaped && head.rest.size() > 1 ? head.rest[1] : head.rest[0];
    // A letter or digit gives a backslash a meaning.
    const bool is_literal =
        is_escaped ? c >= ' ' && c <= '~' && !isDigit(c) && !isLetter(c) && head.rest.size() > 1
                   : kMetacharacters.find(c) == std::string_view::npos;
    if (!is_literal) break;
    head.text.push_back(c);
    head.rest.remove_prefix(is_escaped ? 2 : 1);
  }
  return head;
}

/// The part of `head` that every match begins with, whatever follows.
std::string requiredPart(const LiteralHead& head) {
  // Another branch, wherever it stands, may begin in another way.
  if (head.rest.find('|') != std::string_view::npos) return {};
  // A quantifier counts for the last character, also behind what stands for nothing: "\\E", a comment.
  const bool may_repeat_last =
      !head.rest.empty() &&
      (std::string_view("*?+{\\").find(head.rest[0]) != std::string_view::npos ||
       head.rest.starts_with("(?"));
  if (!may_repeat_last) return head.text;
  size_t length = head.text.size();
  // The whole of the last character.
  while (length > 0 && (static_cast<unsigned char>(head.text[length - 1]) & 0xC0) == 0x80) --length;
  return head.text.substr(0, length > 0 ? length - 1 : 0);
}

std::string messageOf(int code) {
  std::array<PCRE2_UCHAR, 256> buffer{};
  const int length = pcre2_get_error_message(code, buffer.data(), buffer.size());
  if (length < 0) return "error " + std::to_string(code);
  return {buffer.begin(), buffer.begin() + length};
}

VELError patternError(const std::string& pattern, int code, size_t offset) {
  VELError error(VELCocoaErrorDomain, VELFormattingError,
                 "The value “" + escapedForLog(pattern) + "” is invalid.");
  error.setLocalizedFailureReason(messageOf(code) + " at offset " + std::to_string(offset));
  error.setUserInfo({{"NSInvalidValue", pattern}});
  return error;
}

}  // namespace

bool literalPrefixDecides(const LiteralPrefix& prefix, std::string_view subject) noexcept {
  return !prefix.hasWideFolds || isASCII(subject);
}

bool literalPrefixMatches(const LiteralPrefix& prefix, std::string_view subject) noexcept {
  return prefix.ignoresCase ? hasPrefixIgnoringCase(subject, prefix.text)
                            : subject.starts_with(prefix.text);
}

struct RegexEngine::Code {
  explicit Code(pcre2_code* code) : compiled(code) {}
  Code(const Code&) = delete;
  Code& operator=(const Code&) = delete;
  ~Code() { pcre2_code_free(compiled); }

  pcre2_code* const compiled;
};

RegexEngine::RegexEngine(std::string_view pattern, VELRegularExpressionOptions options)
    : pattern_(pattern), options_(options) {}

RegexEngine::~RegexEngine() = default;

std::unique_ptr<const RegexEngine> RegexEngine::compile(std::string_view pattern,
                                                        VELRegularExpressionOptions options,
                                                        VELError* error) {
  std::unique_ptr<RegexEngine> engine(new RegexEngine(pattern, options));
  const bool ignoresCase = has(options, VELRegularExpressionOptions::kCaseInsensitive);
  const std::optional<LiteralHead> head = literalAfterAnchor(pattern, options);
  if (head && !head->rest.empty() && !ignoresCase) {
    engine->literal_ = requiredPart(*head);
  } else if (head && head->rest.empty() && (!ignoresCase || isASCII(head->text))) {
    engine->literal_ = head->text;
    const bool wideFolds =
        ignoresCase && engine->literal_.find_first_of("kKsS") != std::string::npos;
    engine->prefix_ = LiteralPrefix{engine->literal_, ignoresCase, wideFolds};
    if (!wideFolds) return engine;
  }
  if (!engine->compileCode(error)) return nullptr;
  return engine;
}

bool RegexEngine::compileCode(VELError* error) {
  int code = 0;
  size_t offset = 0;
  pcre2_code* compiled =
      pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern_.data()), pattern_.size(),
                    compileOptions(options_), &code, &offset, nullptr);
  if (compiled == nullptr) {
    if (error != nullptr) *error = patternError(pattern_, code, offset);
    return false;
  }
  code_ = std::make_unique<Code>(compiled);
  // Where the system forbids executable memory the interpreter does the same work, slower.
  pcre2_jit_compile(compiled, PCRE2_JIT_COMPLETE);
  uint32_t groups = 0;
  pcre2_pattern_info(compiled, PCRE2_INFO_CAPTURECOUNT, &groups);
  groups_ = groups;
  return true;
}

std::optional<VELTextCheckingResult> RegexEngine::firstMatch(std::string_view string,
                                                             VELMatchingOptions options,
                                                             VELTextRange range) const {
  const std::string_view subject = string.substr(range.location, range.length);
  if (prefix_ && literalPrefixDecides(*prefix_, subject)) {
    if (!literalPrefixMatches(*prefix_, subject)) return std::nullopt;
    return VELTextCheckingResult(VELTextRange{range.location, prefix_->text.size()});
  }
  if (!subject.starts_with(requiredHead())) return std::nullopt;
  return matchCode(subject, options, range.location);
}

std::optional<VELTextCheckingResult> RegexEngine::matchCode(std::string_view subject,
                                                            VELMatchingOptions options,
                                                            size_t shift) const {
  thread_local MatchScratch scratch;
  pcre2_match_data* data = scratch.data(static_cast<uint32_t>(groups_ + 1));
  if (data == nullptr || scratch.context() == nullptr) {
    logGivenUp(PCRE2_ERROR_NOMEMORY);
    return std::nullopt;
  }
  // A null subject is an error to the library, even an empty one.
  const char* text = subject.data() != nullptr ? subject.data() : "";
  const uint32_t flags = options == VELMatchingOptions::kAnchored ? PCRE2_ANCHORED : 0U;
  const int count = pcre2_match(code_->compiled, reinterpret_cast<PCRE2_SPTR>(text), subject.size(),
                                0, flags, data, scratch.context());
  if (count < 0) {
    if (count != PCRE2_ERROR_NOMATCH) logGivenUp(count);
    return std::nullopt;
  }
  const size_t* offsets = pcre2_get_ovector_pointer(data);
  VELTextCheckingResult result;
  for (size_t i = 0; i <= groups_; ++i) {
    const size_t start = offsets[2 * i];
    const size_t end = offsets[2 * i + 1];
    const bool matched = start != PCRE2_UNSET && end >= start;
    result.addRange(matched ? VELTextRange{start + shift, end - start} : VELTextRange{});
  }
  return result;
}

void RegexEngine::logGivenUp(int code) const {
  // Clients choose the texts, so one line a second for a pattern has to be enough.
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::steady_clock::now().time_since_epoch())
                          .count();
  if (lastLogged_.exchange(now, std::memory_order_relaxed) == now) return;
  logLine("Gave up matching the regular expression \"" + pattern_ + "\": " + messageOf(code));
}

}  // namespace vel
