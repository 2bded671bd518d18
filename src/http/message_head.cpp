// The block of a head, its start line and its fields; finding them is in message_head_fields.cpp.
#include "http/message_head.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "corvane/http_message.h"
#include "http/field_text.h"
#include "http/head_grammar.h"
#include "platform/ascii.h"

namespace vel {
namespace {

// The first block on the heap: it holds the head of a browser, and the allocator has it at hand.
constexpr size_t kLargeBlock = 1000;
// Far beyond any head, and small enough for sums of 32 bits.
constexpr size_t kLongestHead = size_t{1} << 30;
constexpr size_t kLongestLine = kLongestHead / 4;
constexpr size_t kLongestName = UINT16_MAX;
constexpr size_t kMostFields = 60'000;
constexpr std::string_view kLineEnd = "\r\n";

std::string_view withoutLineEnd(std::string_view line) noexcept {
  size_t size = line.size();
  if (size > 0 && line[size - 1] == '\n') --size;
  if (size > 0 && line[size - 1] == '\r') --size;
  return {line.data(), size};
}

HTTPVersion kindOfVersion(std::string_view version) noexcept {
  if (version == VELHTTPVersion1_1) return HTTPVersion::k1_1;
  return version == VELHTTPVersion1_0 ? HTTPVersion::k1_0 : HTTPVersion::kOther;
}

std::string cleanText(std::string_view text) {
  std::string result(text.size(), ' ');
  copyCleanFieldText(text, result.data());
  return result;
}

}  // namespace

/// Room for `bytes` more at the end.
inline char* MessageHead::extend(size_t bytes) {
  const size_t needed = size_ + bytes;
  if (needed > capacity_) [[unlikely]] {
    grow(std::max({needed, kLargeBlock, size_t{capacity_} * 2}));
  }
  char* const place = block_ + size_;
  size_ = static_cast<uint32_t>(needed);
  return place;
}

MessageHead::MessageHead(const MessageHead& other) { copyFrom(other); }

MessageHead::MessageHead(MessageHead&& other) noexcept { takeFrom(other); }

MessageHead& MessageHead::operator=(const MessageHead& other) {
  if (this != &other) copyFrom(other);
  return *this;
}

MessageHead& MessageHead::operator=(MessageHead&& other) noexcept {
  if (this != &other) takeFrom(other);
  return *this;
}

void MessageHead::copyFrom(const MessageHead& other) {
  clear();
  entries_ = other.entries_;
  std::memcpy(extend(other.size_), other.block_, other.size_);
  facts_ = other.facts_;
  moveTarget(other.block_);
}

void MessageHead::takeFrom(MessageHead& other) noexcept {
  large_block_ = std::move(other.large_block_);
  block_ = large_block_ ? large_block_.get() : small_block_;
  size_ = other.size_;
  capacity_ = std::exchange(other.capacity_, kSmallBlock);
  facts_ = other.facts_;
  entries_ = std::move(other.entries_);
  if (!large_block_) std::memcpy(small_block_, other.small_block_, size_);
  moveTarget(other.block_);
  other.block_ = other.small_block_;
  other.clear();
}

void MessageHead::clear() noexcept {
  size_ = 0;
  facts_ = Facts();
  entries_.truncate(0);
}

void MessageHead::reserve(size_t bytes) {
  if (bytes > capacity_) grow(bytes);
}

void MessageHead::grow(size_t capacity) {
  if (capacity > kLongestHead) throw std::length_error("message head");
  std::unique_ptr<char[]> block(new char[capacity]);
  std::memcpy(block.get(), block_, size_);
  const char* const old = std::exchange(block_, block.get());
  capacity_ = static_cast<uint32_t>(capacity);
  moveTarget(old);
  large_block_ = std::move(block);
}

/// After the bytes moved from `from` to the present block: takes along the parts of the target that are
/// views into them. The "/" of a target without a path is not.
void MessageHead::moveTarget(const char* from) noexcept {
  if (facts_.kind != Kind::kRequest) return;
  RequestTarget& target = facts_.target;
  const auto begin = reinterpret_cast<uintptr_t>(from);
  for (std::string_view* part : {&target.text, &target.scheme, &target.host, &target.port,
                                 &target.path, &target.query, &target.fragment}) {
    const size_t offset = reinterpret_cast<uintptr_t>(part->data()) - begin;
    if (offset <= size_) *part = {block_ + offset, part->size()};
  }
}

MessageHead::Place MessageHead::append(std::string_view text) {
  char* const place = extend(text.size());
  std::copy(text.begin(), text.end(), place);
  return placeOf({place, text.size()});
}

HeadProgress MessageHead::appendLine(std::string_view line) {
  if (facts_.progress != HeadProgress::kNeedsMore) return facts_.progress;
  line = withoutLineEnd(line);
  if (line.empty()) return appendEmptyLine();
  bool is_good = false;
  if (!hasStartLine()) {
    is_good = appendStartLine(line);
  } else if (isBlank(line[0])) {
    is_good = appendFoldedLine(line);
  } else {
    is_good = appendField(line);
  }
  if (!is_good) facts_.progress = HeadProgress::kMalformed;
  return facts_.progress;
}

/// Copies `line` to the end of the block. False when it cannot be part of a head: a control character is
/// wrong in every line (RFC 9110 §5.5, RFC 9112 §2.2).
inline bool MessageHead::keepLine(std::string_view line, std::string_view* kept) {
  if (line.size() > kLongestLine || size_ > kLongestHead - kLongestLine) return false;
  char* const place = extend(line.size() + kLineEnd.size());
  std::memcpy(place + line.size(), kLineEnd.data(), kLineEnd.size());
  *kept = {place, line.size()};
  return copyFieldText(line, place);
}

inline bool MessageHead::appendField(std::string_view line) {
  std::string_view kept;
  FieldLine parts;
  if (!keepLine(line, &kept) || !parseFieldLine(kept, &parts)) return false;
  if (parts.name.size() > kLongestName || facts_.field_count == kMostFields) return false;
  const Place value = placeOf(parts.value);
  const Entry entry{placeOf(parts.name).offset, value.offset, value.length,
                    static_cast<uint16_t>(parts.name.size()), knownField(parts.name)};
  note(entry);
  entries_.push_back(entry);
  return true;
}

bool MessageHead::appendStartLine(std::string_view line) {
  std::string_view kept;
  if (!keepLine(line, &kept)) return false;
  return kept.substr(0, 5) == "HTTP/" ? parseStatus(kept) : parseRequest(kept);
}

bool MessageHead::parseRequest(std::string_view line) {
  RequestLine parts;
  if (!parseRequestLine(line, &parts) || !parseRequestTarget(parts.target, &facts_.target)) {
    return false;
  }
  facts_.method = placeOf(parts.method);
  facts_.version = placeOf(parts.version);
  facts_.version_kind = kindOfVersion(parts.version);
  facts_.kind = Kind::kRequest;
  return true;
}

bool MessageHead::parseStatus(std::string_view line) {
  StatusLine parts;
  if (!parseStatusLine(line, &parts)) return false;
  facts_.version = placeOf(parts.version);
  facts_.version_kind = kindOfVersion(parts.version);
  facts_.status = parts.status;
  facts_.reason = placeOf(parts.reason);
  facts_.kind = Kind::kResponse;
  return true;
}

/// The line's text goes on where the value before it ends, after one blank.
bool MessageHead::appendFoldedLine(std::string_view line) {
  const std::string_view text = trimmed(line);
  if (isRequest() || facts_.field_count == 0 || !isFieldText(text)) return false;
  Entry& last = entries_[facts_.field_count - 1];
  size_ = last.value + last.value_length;
  if (!text.empty()) {
    if (last.value_length > 0) append(" ");
    append(text);
    last.value_length = size_ - last.value;
  }
  append(kLineEnd);
  return true;
}

/// The end of the head, unless it has not begun.
HeadProgress MessageHead::appendEmptyLine() {
  if (!hasStartLine()) return HeadProgress::kNeedsMore;
  append(kLineEnd);
  facts_.head_length = size_;
  if (facts_.repeated != 0) joinRepeatedFields();
  const bool is_good = !field(KnownField::kContentLength) || settleContentLength();
  facts_.progress = is_good ? HeadProgress::kComplete : HeadProgress::kMalformed;
  return facts_.progress;
}

void MessageHead::setRequest(std::string_view method, std::string_view target,
                             std::string_view version) {
  const std::string parts[] = {cleanText(method), cleanText(target), cleanText(version)};
  clear();
  facts_.method = append(parts[0]);
  const Place target_place = append(parts[1]);
  facts_.version = append(parts[2]);
  facts_.version_kind = kindOfVersion(parts[2]);
  if (!parseRequestTarget(view(target_place), &facts_.target)) {
    // None of the four forms: only its text is known.
    facts_.target = RequestTarget();
    facts_.target.text = view(target_place);
  }
  facts_.kind = Kind::kRequest;
  facts_.progress = HeadProgress::kComplete;
  facts_.is_changed = true;
}

void MessageHead::setResponse(int64_t status, std::optional<std::string_view> description,
                              std::string_view version) {
  const std::string parts[] = {cleanText(description.value_or(VELReasonPhrase(status))),
                               cleanText(version)};
  clear();
  facts_.reason = append(parts[0]);
  facts_.version = append(parts[1]);
  facts_.version_kind = kindOfVersion(parts[1]);
  facts_.status = status;
  facts_.kind = Kind::kResponse;
  facts_.progress = HeadProgress::kComplete;
  facts_.is_changed = true;
}

std::optional<std::string_view> MessageHead::receivedBytes() const noexcept {
  if (!isComplete() || facts_.is_changed) return std::nullopt;
  return std::string_view(block_, facts_.head_length);
}

}  // namespace vel
