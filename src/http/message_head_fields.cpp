// The fields of a head: finding, joining and setting them.
#include <algorithm>

#include "http/field_text.h"
#include "http/head_grammar.h"
#include "http/message_head.h"
#include "platform/ascii.h"
#include "platform/log.h"

namespace vel {
namespace {

constexpr size_t kNotFound = SIZE_MAX;

uint16_t bitOf(KnownField field) noexcept {
  return static_cast<uint16_t>(1U << static_cast<unsigned>(field));
}

/// Cookies are joined as pairs of one field (RFC 6265 §5.4), everything else as a list.
std::string_view separatorOf(KnownField field) noexcept {
  return field == KnownField::kCookie ? "; " : ", ";
}

}  // namespace

void MessageHead::noteKnown(KnownField field) noexcept {
  uint16_t& slot = facts_.known[slotOf(field)];
  if (slot != 0) {
    facts_.repeated = static_cast<uint16_t>(facts_.repeated | bitOf(field));
  } else {
    slot = static_cast<uint16_t>(facts_.field_count);
  }
}

MessageHead::Field MessageHead::fieldAt(size_t index) const noexcept {
  return {nameOf(entries_[index]), valueOf(entries_[index])};
}

size_t MessageHead::find(std::string_view name, size_t from) const noexcept {
  for (size_t i = from; i < facts_.field_count; ++i) {
    const Entry& entry = entries_[i];
    if (entry.name_length == name.size() && equalsIgnoringCase(nameOf(entry), name)) return i;
  }
  return kNotFound;
}

void MessageHead::joinInto(size_t first, std::string* out) const {
  const std::string_view name = nameOf(entries_[first]);
  const std::string_view separator = separatorOf(entries_[first].known);
  *out = valueOf(entries_[first]);
  for (size_t i = find(name, first + 1); i != kNotFound; i = find(name, i + 1)) {
    out->append(separator).append(valueOf(entries_[i]));
  }
}

std::optional<std::string_view> MessageHead::field(std::string_view name,
                                                   std::string* scratch) const {
  const KnownField known = knownField(name);
  const size_t number = facts_.known[slotOf(known)];
  if (number > facts_.field_count) return valueOf(entries_[number - 1]);
  const size_t first = find(name, 0);
  if (first == kNotFound) return std::nullopt;
  if (find(name, first + 1) == kNotFound) return valueOf(entries_[first]);
  joinInto(first, scratch);
  return *scratch;
}

std::optional<std::string> MessageHead::valueForField(std::string_view name) const {
  std::string scratch;
  const std::optional<std::string_view> value = field(name, &scratch);
  if (!value) return std::nullopt;
  return scratch.empty() ? std::string(*value) : std::move(scratch);
}

VELDictionary MessageHead::headers() const {
  VELDictionary result(VELKeyOrder{true});
  for (size_t i = 0; i < facts_.field_count; ++i) {
    const std::string_view value = valueOf(entries_[i]);
    const auto [at, is_new] = result.try_emplace(std::string(nameOf(entries_[i])), value);
    if (!is_new) at->second.append(separatorOf(entries_[i].known)).append(value);
  }
  for (size_t i = facts_.field_count; i < entries_.size(); ++i) {
    result.find(nameOf(entries_[i]))->second = valueOf(entries_[i]);
  }
  return result;
}

/// Makes `value` what a known field answers, in place of the texts of its lines.
void MessageHead::setJoined(KnownField field, const Entry& first, Place value) {
  entries_.push_back({first.name, value.offset, value.length, first.name_length, field});
  facts_.known[slotOf(field)] = static_cast<uint16_t>(entries_.size());
}

void MessageHead::joinRepeatedFields() {
  std::string text;
  for (size_t slot = 0; slot < kKnownFieldCount; ++slot) {
    const auto field = static_cast<KnownField>(slot);
    if ((facts_.repeated & bitOf(field)) == 0) continue;
    const size_t first = facts_.known[slot] - size_t{1};
    joinInto(first, &text);
    const Place value = append(text);
    setJoined(field, Entry(entries_[first]), value);
  }
}

/// False when the lengths of the message, of which there is one at least, differ; a list of equal ones counts as one.
bool MessageHead::settleContentLength() {
  const size_t number = facts_.known[slotOf(KnownField::kContentLength)];
  const Entry entry = entries_[number - 1];
  std::string_view length;
  if (!contentLengthsAgree(valueOf(entry), &length)) return false;
  if (length.size() < entry.value_length) {
    setJoined(KnownField::kContentLength, entry, placeOf(length));
  }
  return true;
}

void MessageHead::rebuildIndex() {
  entries_.truncate(facts_.field_count);
  facts_.field_count = 0;
  facts_.repeated = 0;
  facts_.known.fill(0);
  for (const Entry& entry : entries_) note(entry);
  if (!isComplete()) return;
  joinRepeatedFields();
  if (field(KnownField::kContentLength)) settleContentLength();
}

void MessageHead::setField(std::string_view value, std::string_view name) {
  if (!isFieldName(name) || name.size() > UINT16_MAX) {
    logLine("Header field with an invalid name left out: " + escapedForLog(name));
    return;
  }
  // Made before the block changes, into which both may point.
  std::string text(name);
  text.append(value);
  copyCleanFieldText(value, text.data() + name.size());
  const size_t name_length = name.size();
  size_t first = find(name, 0);

  entries_.truncate(facts_.field_count);
  const Place place = append(text);
  if (first == kNotFound) {
    first = facts_.field_count++;
    entries_.push_back({place.offset, 0, 0, static_cast<uint16_t>(name_length),
                        knownField(std::string_view(text).substr(0, name_length))});
  }
  entries_[first].value = place.offset + static_cast<uint32_t>(name_length);
  entries_[first].value_length = place.length - static_cast<uint32_t>(name_length);
  removeFields(std::string_view(text).substr(0, name_length), first + 1);
  facts_.is_changed = true;
  rebuildIndex();
}

void MessageHead::removeFields(std::string_view name, size_t from) {
  size_t kept = from;
  for (size_t i = from; i < facts_.field_count; ++i) {
    if (!equalsIgnoringCase(nameOf(entries_[i]), name)) entries_[kept++] = entries_[i];
  }
  facts_.field_count = static_cast<uint32_t>(kept);
  entries_.truncate(kept);
}

}  // namespace vel
