// The text of field names and values: which bytes they may hold, and what becomes of the others. The
// functions look at many bytes at a time, and at none beyond the text.
#pragma once

#include <cstddef>
#include <string_view>

namespace vel {

/// The length of the token at the start of `text` (RFC 9110 §5.6.2).
size_t tokenLength(std::string_view text) noexcept;

/// True when `text` is a token and can name a field.
bool isFieldName(std::string_view text) noexcept;

/// True when `text` can be a field value: no control character other than the tab; bytes beyond ASCII
/// are let through (RFC 9110 §5.5).
bool isFieldText(std::string_view text) noexcept;

/// Copies `text` to `out` as it is; whether it can be a field value.
bool copyFieldText(std::string_view text, char* out) noexcept;

/// Copies `text` to `out`, with blanks for the control characters that a value cannot hold.
void copyCleanFieldText(std::string_view text, char* out) noexcept;

}  // namespace vel
