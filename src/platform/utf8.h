// Is a text UTF-8? Decoding is left to those who need characters.
#pragma once

#include <string_view>

namespace vel {

/// True when `text` holds no byte beyond ASCII.
bool isASCII(std::string_view text) noexcept;

/// True when `text` is well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above
/// U+10FFFF. Eight bytes at a time while they are ASCII.
bool isValidUTF8(std::string_view text) noexcept;

}  // namespace vel
