// Percent-decoding and UTF-8 read plainly, from the text of RFC 3986 §2.1 and RFC 3629 §3: what the
// quick readers of the library are held against.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vel::fuzz {

struct Decoded {
  /// With every malformed escape left as it is.
  std::string text;
  /// Whether there was none.
  bool is_good = true;
  bool has_escapes = false;
};

Decoded plainlyDecoded(std::string_view text, bool plus_is_blank);

/// Whether `text` is UTF-8, by working out the code points and how they would be written.
bool isPlainlyUTF8(std::string_view text);

/// The parts between the separators; one empty part of an empty text.
std::vector<std::string_view> plainlySplit(std::string_view text, char separator);

}  // namespace vel::fuzz
