// The order of keys, and the form decoder.
#include "corvane/dictionary.h"

#include <optional>
#include <utility>

#include "platform/ascii.h"
#include "platform/percent.h"

namespace {

/// What stands before the next `separator`; the text goes on after it.
std::string_view takeUntil(char separator, std::string_view* text) {
  const size_t end = text->find(separator);
  const std::string_view part = text->substr(0, end);
  text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
  return part;
}

}  // namespace

bool VELKeyOrder::operator()(std::string_view a, std::string_view b) const noexcept {
  return ignoresCase ? vel::compareIgnoringCase(a, b) < 0 : a < b;
}

VELDictionary vel_dictionaryWithHTTPFormEncodedString(std::string_view string) {
  VELDictionary dictionary;
  while (!string.empty()) {
    std::string_view pair = takeUntil('&', &string);
    const std::string_view rawKey = takeUntil('=', &pair);
    const std::string_view rawValue = takeUntil('=', &pair);
    std::optional<std::string> key = vel::percentDecodedText(rawKey, vel::PlusSign::kIsBlank);
    if (!key || key->empty()) continue;
    std::optional<std::string> value = vel::percentDecodedText(rawValue, vel::PlusSign::kIsBlank);
    dictionary.insert_or_assign(std::move(*key), std::move(value).value_or(std::string()));
  }
  return dictionary;
}
