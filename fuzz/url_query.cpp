// Queries: their items and the parameters of a request, against a plain reading.
#include "platform/url_query.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/plain_text.h"
#include "support/require.h"

namespace vel::fuzz {
namespace {

/// A part that is not UTF-8 once decoded stays as it was sent.
std::string plainPart(std::string_view part) {
  Decoded decoded = plainlyDecoded(part, false);
  if (decoded.has_escapes && !isPlainlyUTF8(decoded.text)) return std::string(part);
  return std::move(decoded.text);
}

std::vector<VELURLQueryItem> plainItems(std::string_view query) {
  std::vector<VELURLQueryItem> items;
  if (query.empty()) return items;
  for (const std::string_view text : plainlySplit(query, '&')) {
    const std::string_view name = plainlySplit(text, '=')[0];
    VELURLQueryItem item{plainPart(name), {}};
    if (name.size() < text.size()) item.value = plainPart(text.substr(name.size() + 1));
    items.push_back(std::move(item));
  }
  return items;
}

void checkQuery(std::string_view query) {
  const std::vector<VELURLQueryItem> items = queryItemsOf(query);
  require(items == plainItems(query), "the items of the query");
  VELDictionary expected;
  for (const VELURLQueryItem& item : items) {
    expected.erase(item.name);
    if (item.value) expected.emplace(item.name, *item.value);
  }
  require(dictionaryWithURLQuery(query) == expected, "the parameters of the query");
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::checkQuery({reinterpret_cast<const char*>(data), size});
  return 0;
}
