// ASCII text without regard to locale: letter case, white space, digits and the token characters of
// HTTP. Bytes beyond ASCII are never changed and never match a letter.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace vel {

constexpr char toLower(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

constexpr char toUpper(char c) noexcept {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c;
}

constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

constexpr bool isLetter(char c) noexcept {
  const char lower = toLower(c);
  return lower >= 'a' && lower <= 'z';
}

/// True for bytes below the blank and for DEL.
constexpr bool isControl(char c) noexcept {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7F;
}

/// White space within a line of a message: OWS of RFC 9110 §5.6.3.
constexpr bool isBlank(char c) noexcept { return c == ' ' || c == '\t'; }

/// White space in the sense of the C locale.
constexpr bool isSpace(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

/// The value of a hexadecimal digit, or -1.
constexpr int hexValue(char c) noexcept {
  if (isDigit(c)) return c - '0';
  const char lower = toLower(c);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// The two digits of a byte; `upper` chooses the letters.
constexpr std::array<char, 2> hexDigits(uint8_t byte, bool upper) noexcept {
  const std::string_view digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  return {digits[byte >> 4], digits[byte & 0xF]};
}

namespace internal {
constexpr std::array<bool, 256> makeTokenTable() noexcept {
  std::array<bool, 256> table{};
  for (size_t c = '0'; c <= '9'; ++c) table[c] = true;
  for (size_t c = 'a'; c <= 'z'; ++c) table[c] = table[c - 'a' + 'A'] = true;
  for (const char c : std::string_view("!#$%&'*+-.^_`|~")) table[static_cast<size_t>(c)] = true;
  return table;
}
inline constexpr std::array<bool, 256> kTokenTable = makeTokenTable();
}  // namespace internal

/// tchar of RFC 9110 §5.6.2.
constexpr bool isTokenCharacter(char c) noexcept {
  return internal::kTokenTable[static_cast<unsigned char>(c)];
}

/// A token of RFC 9110 §5.6.2: at least one character, all of them token characters.
constexpr bool isToken(std::string_view text) noexcept {
  for (const char c : text) {
    if (!isTokenCharacter(c)) return false;
  }
  return !text.empty();
}

constexpr bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i] && toLower(a[i]) != toLower(b[i])) return false;
  }
  return true;
}

constexpr bool hasPrefixIgnoringCase(std::string_view text, std::string_view prefix) noexcept {
  return text.size() >= prefix.size() && equalsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

/// Below, at or above zero, as bytes compare once letters are lower case.
constexpr int compareIgnoringCase(std::string_view a, std::string_view b) noexcept {
  const size_t common = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < common; ++i) {
    const auto left = static_cast<unsigned char>(toLower(a[i]));
    const auto right = static_cast<unsigned char>(toLower(b[i]));
    if (left != right) return left < right ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

inline std::string lowercased(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = toLower(c);
  return result;
}

inline std::string uppercased(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = toUpper(c);
  return result;
}

/// `text` without the blanks and tabs at its ends.
constexpr std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

/// Calls `call` with each item of a list that commas separate, without the blanks around it; items may be empty
/// (RFC 9110 §5.6.1).
template <class Call>
void forEachListItem(std::string_view list, Call&& call) {
  for (size_t begin = 0; begin <= list.size();) {
    const size_t end = std::min(list.find(',', begin), list.size());
    call(trimmed(list.substr(begin, end - begin)));
    begin = end + 1;
  }
}

/// Where the first CR LF of `input` ends, of which the first `from` bytes are known to hold none; 0 when there
/// is none.
inline size_t endOfLine(std::string_view input, size_t from = 0) noexcept {
  while (from < input.size()) {
    const void* const found = std::memchr(input.data() + from, '\n', input.size() - from);
    if (found == nullptr) return 0;
    const auto at = static_cast<size_t>(static_cast<const char*>(found) - input.data());
    if (at > 0 && input[at - 1] == '\r') return at + 1;
    from = at + 1;
  }
  return 0;
}

}  // namespace vel
