// Everything is written once, into room whose size is known before.
#include "http/head_serialiser.h"

#include <charconv>
#include <cstring>

#include "corvane/http_message.h"
#include "http/field_text.h"
#include "http/message_head.h"
#include "platform/ascii.h"
#include "platform/log.h"

namespace vel {
namespace {

constexpr std::string_view kVersionAndSpace = "HTTP/1.1 ";
constexpr std::string_view kSeparator = ": ";
constexpr std::string_view kLineEnd = "\r\n";
constexpr size_t kLongestNumber = 20;

/// Most texts of a head are short: a few moves then cost less than a call.
inline char* write(std::string_view text, char* out) noexcept {
  const char* const from = text.data();
  const size_t size = text.size();
  if (size >= 8 && size <= 16) {
    std::memcpy(out, from, 8);
    std::memcpy(out + size - 8, from + size - 8, 8);
  } else if (size >= 4 && size < 8) {
    std::memcpy(out, from, 4);
    std::memcpy(out + size - 4, from + size - 4, 4);
  } else if (size > 16) {
    std::memcpy(out, from, size);
  } else {
    for (size_t i = 0; i < size; ++i) out[i] = from[i];
  }
  return out + size;
}

/// Control characters are rare, so the text is copied before they are known to be there.
char* writeClean(std::string_view text, char* out) noexcept {
  if (!copyFieldText(text, out)) copyCleanFieldText(text, out);
  return out + text.size();
}

char* writeCRLF(char* out) noexcept {
  std::memcpy(out, kLineEnd.data(), kLineEnd.size());
  return out + kLineEnd.size();
}

/// Names that are the same mostly are so letter for letter. `a` is not empty.
bool isSameName(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && toLower(a[0]) == toLower(b[0]) &&
         (a == b || equalsIgnoringCase(a, b));
}

bool hasThreeDigits(uint64_t status) noexcept { return status >= 100 && status <= 999; }

size_t statusLength(uint64_t status) noexcept {
  return hasThreeDigits(status) ? 3 : std::to_string(status).size();
}

/// Three digits at least, as every status code has (RFC 9112 §4): also of one like "050" that came.
std::string statusText(int64_t status) {
  std::string text = std::to_string(status);
  if (status >= 0 && text.size() < 3) text.insert(0, 3 - text.size(), '0');
  return text;
}

char* writeStatus(uint64_t status, char* out) noexcept {
  if (!hasThreeDigits(status)) return std::to_chars(out, out + kLongestNumber, status).ptr;
  const auto code = static_cast<unsigned>(status);
  *out++ = static_cast<char>('0' + code / 100);
  *out++ = static_cast<char>('0' + code / 10 % 10);
  *out++ = static_cast<char>('0' + code % 10);
  return out;
}

}  // namespace

std::string serialised(const MessageHead& head) {
  if (const auto received = head.receivedBytes()) return std::string(*received);
  std::string text;
  if (!head.hasStartLine()) return text;
  if (head.isRequest()) {
    text.append(head.method()).append(1, ' ').append(head.target().text).append(1, ' ');
    text.append(head.version());
  } else {
    text.append(head.version()).append(1, ' ').append(statusText(head.status()));
    text.append(1, ' ').append(head.reason());
  }
  text.append(kLineEnd);
  for (size_t i = 0; i < head.fieldCount(); ++i) {
    const MessageHead::Field field = head.fieldAt(i);
    text.append(field.name).append(kSeparator).append(field.value).append(kLineEnd);
  }
  return text.append(kLineEnd);
}

ResponseHeadBuilder::ResponseHeadBuilder(uint64_t status,
                                         std::optional<std::string_view> description) noexcept
    : status_(status),
      description_(description ? *description : VELReasonPhrase(static_cast<int64_t>(status))),
      has_clean_description_(!description) {}

void ResponseHeadBuilder::setContentLength(uint64_t length) {
  char* const digits = length_digits_.data();
  const char* const end = std::to_chars(digits, digits + length_digits_.size(), length).ptr;
  setOwnField("Content-Length", {digits, static_cast<size_t>(end - digits)});
}

void ResponseHeadBuilder::setOwnField(std::string_view name, std::string_view value) {
  addField({name, value, true});
}

void ResponseHeadBuilder::addField(const Field& field) {
  fields_.push_back(field);
  field_bytes_ += field.name.size() + kSeparator.size() + field.value.size() + kLineEnd.size();
}

void ResponseHeadBuilder::setField(std::string_view name, std::string_view value) {
  for (Field& other : fields_) {
    if (isSameName(other.name, name)) {
      field_bytes_ = field_bytes_ - other.value.size() + value.size();
      other = {name, value, false};
      return;
    }
  }
  if (isFieldName(name)) {
    addField({name, value, false});
  } else {
    logLine("Header field with an invalid name left out: " + escapedForLog(name));
  }
}

void ResponseHeadBuilder::setFields(std::span<const VELHeaderField> fields) {
  for (const VELHeaderField& field : fields) setField(field.name, field.value);
}

std::optional<std::string_view> ResponseHeadBuilder::field(std::string_view name) const noexcept {
  for (const Field& field : fields_) {
    if (isSameName(field.name, name)) return field.value;
  }
  return std::nullopt;
}

size_t ResponseHeadBuilder::size() const noexcept {
  return kVersionAndSpace.size() + statusLength(status_) + 1 + description_.size() +
         kLineEnd.size() + field_bytes_ + kLineEnd.size();
}

char* ResponseHeadBuilder::writeTo(char* out) const noexcept {
  out = write(kVersionAndSpace, out);
  out = writeStatus(status_, out);
  *out++ = ' ';
  out = has_clean_description_ ? write(description_, out) : writeClean(description_, out);
  out = writeCRLF(out);
  for (const Field& field : fields_) {
    out = write(field.name, out);
    std::memcpy(out, kSeparator.data(), kSeparator.size());
    out += kSeparator.size();
    out = field.is_clean ? write(field.value, out) : writeClean(field.value, out);
    out = writeCRLF(out);
  }
  return writeCRLF(out);
}

void ResponseHeadBuilder::appendTo(std::string* out) const {
  const size_t start = out->size();
  out->resize(start + size());
  writeTo(out->data() + start);
}

VELData ResponseHeadBuilder::data() const {
  std::string bytes;
  appendTo(&bytes);
  return VELData(std::move(bytes));
}

}  // namespace vel
