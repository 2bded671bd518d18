// The form decoder against a plain reading of the same text.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/dictionary.h"
#include "support/plain_text.h"
#include "support/require.h"

namespace vel::fuzz {
namespace {

std::optional<std::string> plainPart(std::string_view part) {
  const Decoded decoded = plainlyDecoded(part, true);
  if (!decoded.is_good) return std::nullopt;
  if (decoded.has_escapes && !isPlainlyUTF8(decoded.text)) return std::nullopt;
  return decoded.text;
}

void checkForm(std::string_view text) {
  VELDictionary expected;
  for (const std::string_view pair : plainlySplit(text, '&')) {
    const std::vector<std::string_view> parts = plainlySplit(pair, '=');
    const std::optional<std::string> key = plainPart(parts[0]);
    if (!key || key->empty()) continue;
    expected[*key] = parts.size() > 1 ? plainPart(parts[1]).value_or("") : "";
  }
  require(vel_dictionaryWithHTTPFormEncodedString(text) == expected, "the pairs of the form");
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::checkForm({reinterpret_cast<const char*>(data), size});
  return 0;
}
