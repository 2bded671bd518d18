// Percent-decoding and -encoding.
#include "platform/percent.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/ascii.h"
#include "platform/utf8.h"

namespace vel {
namespace {

/// The byte that the escape at `at` spells, or -1.
int escapedByte(std::string_view text, size_t at) noexcept {
  if (text.size() - at < 3) return -1;
  const int high = hexValue(text[at + 1]);
  const int low = hexValue(text[at + 2]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

/// What a path holds as it is: unreserved, sub-delims, ":", "@" and "/".
constexpr bool isPathCharacter(char c) noexcept {
  return isDigit(c) || isLetter(c) ||
         std::string_view("-._~!$&'()*+,;=:@/").find(c) != std::string_view::npos;
}

}  // namespace

bool appendPercentDecoded(std::string_view text, MalformedEscape malformed, PlusSign plus,
                          std::string* out) {
  out->reserve(out->size() + text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '+' && plus == PlusSign::kIsBlank) {
      out->push_back(' ');
    } else if (c != '%') {
      out->push_back(c);
    } else if (const int byte = escapedByte(text, at); byte >= 0) {
      out->push_back(static_cast<char>(byte));
      at += 2;
    } else if (malformed == MalformedEscape::kStaysLiteral) {
      out->push_back(c);
    } else {
      return false;
    }
  }
  return true;
}

std::optional<std::string> percentDecodedText(std::string_view text, PlusSign plus) {
  std::string decoded;
  if (!appendPercentDecoded(text, MalformedEscape::kFails, plus, &decoded)) return std::nullopt;
  // Without escapes the bytes are the caller's own and stay what they are.
  const bool hasEscapes = decoded.size() != text.size();
  if (hasEscapes && !isValidUTF8(decoded)) return std::nullopt;
  return decoded;
}

namespace {

/// Escapes all but the bytes that `isKept`, asked for each position, lets stand.
template <class IsKept>
void appendPercentEncoded(std::string_view text, IsKept isKept, std::string* out) {
  out->reserve(out->size() + text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    if (isKept(at)) {
      out->push_back(text[at]);
      continue;
    }
    const auto digits = hexDigits(static_cast<uint8_t>(text[at]), true);
    out->push_back('%');
    out->append(digits.data(), digits.size());
  }
}

}  // namespace

void appendPercentEncodedPath(std::string_view path, std::string* out) {
  appendPercentEncoded(
      path, [path](size_t at) { return isPathCharacter(path[at]); }, out);
}

void appendPercentEncodedQuery(std::string_view query, std::string* out) {
  const auto isKept = [query](size_t at) {
    if (query[at] == '%') return escapedByte(query, at) >= 0;
    return query[at] == '?' || isPathCharacter(query[at]);
  };
  appendPercentEncoded(query, isKept, out);
}

}  // namespace vel
