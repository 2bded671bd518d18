// The splitter of URLs.
#include "platform/url_parts.h"

#include <array>
#include <cstdint>
#include <optional>

#include "platform/ascii.h"
#include "platform/number.h"
#include "platform/percent.h"

namespace vel {
namespace {

enum CharacterKind : uint8_t { kOrdinary, kPercent, kQuestion, kHash, kRefused };

constexpr std::array<uint8_t, 256> makeKinds() {
  std::array<uint8_t, 256> kinds{};
  for (size_t byte = 0; byte <= ' '; ++byte) kinds[byte] = kRefused;
  kinds[0x7F] = kRefused;
  kinds['%'] = kPercent;
  kinds['?'] = kQuestion;
  kinds['#'] = kHash;
  return kinds;
}

constexpr std::array<uint8_t, 256> kKinds = makeKinds();

uint8_t kindOf(char c) noexcept { return kKinds[static_cast<unsigned char>(c)]; }

bool hasRefused(std::string_view text) noexcept {
  for (const char c : text) {
    if (kindOf(c) == kRefused) return true;
  }
  return false;
}

bool isEscape(std::string_view text, size_t at) noexcept {
  return text.size() - at >= 3 && hexValue(text[at + 1]) >= 0 && hexValue(text[at + 2]) >= 0;
}

bool splitFragment(std::string_view text, URLParts* out) noexcept {
  out->hasFragment = true;
  out->fragment = text;
  return !hasRefused(text);
}

bool splitQuery(std::string_view text, URLParts* out) noexcept {
  const size_t hash = text.find('#');
  out->hasQuery = true;
  out->query = text.substr(0, hash);
  if (hasRefused(out->query)) return false;
  return hash == std::string_view::npos || splitFragment(text.substr(hash + 1), out);
}

bool isPort(std::string_view text) noexcept {
  for (const char c : text) {
    if (!isDigit(c)) return false;
  }
  return text.empty() || parseNumber(text, NumberGrammar::kDecimal).value_or(UINT64_MAX) <= 65535;
}

}  // namespace

size_t schemeLength(std::string_view text) noexcept {
  if (text.empty() || !isLetter(text.front())) return 0;
  for (size_t i = 1; i < text.size(); ++i) {
    const char c = text[i];
    if (c == ':') return i;
    if (!isLetter(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return 0;
  }
  return 0;
}

bool splitPath(std::string_view text, URLParts* out) noexcept {
  size_t at = 0;
  for (; at < text.size(); ++at) {
    const uint8_t kind = kindOf(text[at]);
    if (kind == kOrdinary) continue;
    if (kind == kRefused) return false;
    if (kind != kPercent) break;
    if (!isEscape(text, at)) return false;
    out->pathHasEscapes = true;
    at += 2;
  }
  out->path = text.substr(0, at);
  if (at == text.size()) return true;
  const std::string_view rest = text.substr(at + 1);
  return text[at] == '?' ? splitQuery(rest, out) : splitFragment(rest, out);
}

bool splitAuthority(std::string_view authority, URLParts* out) noexcept {
  if (hasRefused(authority)) return false;
  if (const size_t user = authority.rfind('@'); user != std::string_view::npos) {
    authority.remove_prefix(user + 1);
  }
  if (!authority.empty() && authority.front() == '[') {
    const size_t bracket = authority.find(']');
    if (bracket == std::string_view::npos) return false;
    out->host = authority.substr(1, bracket - 1);
    authority.remove_prefix(bracket + 1);
    if (!authority.empty() && authority.front() != ':') return false;
  } else {
    const size_t colon = authority.find(':');
    out->host = authority.substr(0, colon);
    authority.remove_prefix(out->host.size());
  }
  if (!authority.empty()) out->port = authority.substr(1);
  return isPort(out->port);
}

bool splitURL(std::string_view text, URLParts* out) noexcept {
  if (const size_t length = schemeLength(text); length > 0) {
    out->scheme = text.substr(0, length);
    text.remove_prefix(length + 1);
  }
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    const std::string_view authority = text.substr(0, text.find_first_of("/?#"));
    if (!splitAuthority(authority, out)) return false;
    text.remove_prefix(authority.size());
  }
  return splitPath(text, out);
}

std::string_view decodedPath(const URLParts& parts, std::string* scratch) {
  std::string_view path = parts.path;
  if (parts.pathHasEscapes) {
    scratch->clear();
    appendPercentDecoded(path, MalformedEscape::kStaysLiteral, PlusSign::kStays, scratch);
    path = *scratch;
  }
  if (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

std::string_view pathExtension(std::string_view path) noexcept {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  return name.substr(dot + 1);
}

std::string hostInBrackets(std::string host) {
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

}  // namespace vel
