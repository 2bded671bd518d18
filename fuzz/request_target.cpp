// Request targets and URLs: their parts are places in the text that give it back when they are put
// together again, hold none of what is refused, and decode as a plain decoder says.
#include "platform/request_target.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/url.h"
#include "platform/url_parts.h"
#include "support/plain_text.h"
#include "support/require.h"

namespace vel::fuzz {
namespace {

using Form = RequestTarget::Form;

bool isRefused(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte <= 0x20 || byte == 0x7F;
}

std::string plainPath(std::string_view path) {
  std::string decoded = plainlyDecoded(path, false).text;
  if (decoded.size() > 1 && decoded.back() == '/') decoded.pop_back();
  return decoded;
}

bool isPort(std::string_view text) {
  if (text.find_first_not_of("0123456789") != std::string_view::npos) return false;
  text.remove_prefix(std::min(text.size(), text.find_first_not_of('0')));
  return text.size() < 5 || (text.size() == 5 && text <= "65535");
}

/// What follows the path, as it was.
std::string afterPath(const URLParts& parts) {
  std::string text;
  if (parts.hasQuery) text.append(1, '?').append(parts.query);
  if (parts.hasFragment) text.append(1, '#').append(parts.fragment);
  return text;
}

void checkParts(const URLParts& parts) {
  require(parts.query.find('#') == std::string_view::npos, "a query ends at #");
  require(parts.path.find_first_of("?#") == std::string_view::npos, "a path ends at ? and #");
  require(parts.hasQuery || parts.query.empty(), "no query without ?");
  require(parts.hasFragment || parts.fragment.empty(), "no fragment without #");
  require(parts.pathHasEscapes == (parts.path.find('%') != std::string_view::npos), "escapes");
  require(plainlyDecoded(parts.path, false).is_good, "a path has no malformed escape");
  require(parts.host.find_first_of("/?#") == std::string_view::npos, "a host ends before the path");
  require(parts.host.find('@') == std::string_view::npos, "user information is no host");
  require(isPort(parts.port), "the port");
  std::string scratch;
  require(decodedPath(parts, &scratch) == plainPath(parts.path), "the decoded path");
}

void checkTarget(std::string_view text) {
  RequestTarget target;
  if (!parseRequestTarget(text, &target)) {
    require(!VELURL::URLWithRequestTarget(text), "no URL of what is no target");
    return;
  }
  require(std::none_of(text.begin(), text.end(), isRefused), "nothing that is refused");
  require(target.text == text, "the whole text");
  checkParts(target);
  const std::string rest = std::string(target.path) + afterPath(target);
  switch (target.form) {
    case Form::kOrigin:
      require(text == rest && text.starts_with('/'), "the origin form");
      require(target.host.empty() && target.scheme.empty(), "no host in the origin form");
      break;
    case Form::kAbsolute:
      require(text.starts_with(std::string(target.scheme) + "://"), "the absolute form");
      require(text.ends_with(rest) || target.path == "/", "the end of the absolute form");
      require(!target.host.empty(), "the host of the absolute form");
      break;
    case Form::kAuthority:
      require(rest.empty() && !target.host.empty() && !target.port.empty(), "the authority form");
      break;
    case Form::kAsterisk:
      require(text == "*" && rest == "*", "the asterisk form");
      break;
  }
  const std::optional<VELURL> url = VELURL::URLWithRequestTarget(text);
  require(url && url->absoluteString() == text, "the URL of a target");
  std::string scratch;
  require(url->path() == decodedPath(target, &scratch), "the path of the URL");
}

void checkURL(std::string_view text) {
  const std::optional<VELURL> url = VELURL::URLWithString(text);
  URLParts parts;
  if (!url) {
    require(text.empty() || !splitURL(text, &parts), "what is no URL");
    return;
  }
  require(splitURL(text, &parts), "what is a URL");
  require(std::none_of(text.begin(), text.end(), isRefused), "nothing that is refused");
  checkParts(parts);
  require(text.ends_with(std::string(parts.path) + afterPath(parts)), "the end of the URL");
  require(url->scheme() == parts.scheme && url->host() == parts.host, "scheme and host");
  require(url->port().has_value() == !parts.port.empty(), "whether there is a port");
  require(url->query().value_or("") == parts.query, "the query");
  require(url->path().ends_with(url->pathExtension()), "the extension");
  require(url->path() == "/" || url->path().ends_with(url->lastPathComponent()), "the component");

  // What is appended is escaped, so that it comes back as it was.
  const VELURL longer = url->URLByAppendingPathComponent("a b?#%zz");
  require(longer.path().ends_with("/a b?#%zz"), "an appended component");
  require(longer.host() == url->host() && !longer.query(), "the rest stays");
}

/// Any bytes are the name of a file.
void checkFile(std::string_view bytes) {
  const std::string path = "/" + std::string(bytes);
  const VELURL url = VELURL::fileURLWithPath(path);
  std::string expected = path;
  if (expected.size() > 1 && expected.back() == '/') expected.pop_back();
  require(url.isFileURL() && url.filePath() == expected, "the path of a file");
}

void check(std::string_view text) {
  checkTarget(text);
  checkURL(text);
  checkFile(text);
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::check({reinterpret_cast<const char*>(data), size});
  return 0;
}
