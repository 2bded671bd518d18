// Writing JSON text (RFC 8259), as much of it as the program needs.
#pragma once

#include <string>
#include <string_view>

/// Appends `text` as a JSON string. What is not UTF-8 becomes U+FFFD.
void appendJSONString(std::string& json, std::string_view text);
