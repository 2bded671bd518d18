// Splitting queries into items.
#include "platform/url_query.h"

#include <cstddef>
#include <string>
#include <utility>

#include "platform/percent.h"
#include "platform/utf8.h"

namespace vel {
namespace {

std::string decodedPart(std::string_view part) {
  std::string decoded;
  appendPercentDecoded(part, MalformedEscape::kStaysLiteral, PlusSign::kStays, &decoded);
  const bool hasEscapes = decoded.size() != part.size();
  if (hasEscapes && !isValidUTF8(decoded)) decoded = part;
  return decoded;
}

VELURLQueryItem itemOf(std::string_view text) {
  const size_t equals = text.find('=');
  VELURLQueryItem item{decodedPart(text.substr(0, equals)), std::nullopt};
  if (equals != std::string_view::npos) item.value = decodedPart(text.substr(equals + 1));
  return item;
}

template <typename Take>
void forEachItem(std::string_view query, Take take) {
  if (query.empty()) return;
  for (;;) {
    const size_t end = query.find('&');
    take(itemOf(query.substr(0, end)));
    if (end == std::string_view::npos) return;
    query.remove_prefix(end + 1);
  }
}

}  // namespace

std::vector<VELURLQueryItem> queryItemsOf(std::string_view query) {
  std::vector<VELURLQueryItem> items;
  forEachItem(query, [&](VELURLQueryItem item) { items.push_back(std::move(item)); });
  return items;
}

VELDictionary dictionaryWithURLQuery(std::string_view query) {
  VELDictionary dictionary;
  forEachItem(query, [&](VELURLQueryItem item) {
    if (item.value) {
      dictionary.insert_or_assign(std::move(item.name), std::move(*item.value));
    } else {
      dictionary.erase(item.name);
    }
  });
  return dictionary;
}

}  // namespace vel
