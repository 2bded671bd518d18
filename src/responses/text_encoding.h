// From UTF-8 to the encodings that a text response may ask for.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vel {

/// The bytes of `text`, which is UTF-8, in `encoding`, a code of corvane/text_encoding.h; UTF-16 is
/// in the byte order of little-endian machines. None when the text is not UTF-8, when a character
/// does not exist in the encoding, and for any other code.
std::optional<std::string> encodedText(std::string_view text, unsigned encoding);

}  // namespace vel
