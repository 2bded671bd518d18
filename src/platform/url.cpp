// VELURL over the splitter of platform/url_parts.h: one shared text with the views into it.
#include "corvane/url.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstddef>
#include <utility>

#include "platform/ascii.h"
#include "platform/number.h"
#include "platform/percent.h"
#include "platform/request_target.h"
#include "platform/url_query.h"

struct VELURL::Representation {
  explicit Representation(std::string string) : text(std::move(string)) {}
  Representation(const Representation&) = delete;
  Representation& operator=(const Representation&) = delete;

  bool split(bool asTarget) {
    isTarget = asTarget;
    if (!asTarget) return vel::splitURL(text, &parts);
    vel::RequestTarget target;
    const bool parsed = vel::parseRequestTarget(text, &target);
    parts = target;
    return parsed;
  }

  const std::string text;
  bool isTarget = false;
  vel::URLParts parts;
};

namespace {

std::string currentDirectory() {
  std::array<char, PATH_MAX> buffer;
  return ::getcwd(buffer.data(), buffer.size()) != nullptr ? buffer.data() : "";
}

}  // namespace

VELURL::VELURL(std::shared_ptr<const Representation> representation) noexcept
    : representation_(std::move(representation)) {}

std::optional<VELURL> VELURL::URLWithString(std::string_view string) {
  if (string.empty()) return std::nullopt;
  auto representation = std::make_shared<Representation>(std::string(string));
  if (!representation->split(false)) return std::nullopt;
  return VELURL(std::move(representation));
}

std::optional<VELURL> VELURL::URLWithRequestTarget(std::string_view target) {
  auto representation = std::make_shared<Representation>(std::string(target));
  if (!representation->split(true)) return std::nullopt;
  return VELURL(std::move(representation));
}

VELURL VELURL::fileURLWithPath(std::string_view path) {
  std::string text = "file://";
  if (!path.starts_with('/')) {
    vel::appendPercentEncodedPath(currentDirectory(), &text);
    text.push_back('/');
  }
  vel::appendPercentEncodedPath(path, &text);
  return URLWithString(text).value_or(VELURL());
}

VELURL VELURL::URLByAppendingPathComponent(std::string_view component) const {
  const std::string& base = absoluteString();
  std::string text = base.substr(0, base.find_first_of("?#"));
  while (component.starts_with('/')) component.remove_prefix(1);
  // The slashes of "scheme://" are no path: without one of its own the component would be the host.
  const bool hasPath = representation_ && !representation_->parts.path.empty();
  if (!hasPath || !text.ends_with('/')) text.push_back('/');
  vel::appendPercentEncodedPath(component, &text);
  const bool isTarget = representation_ && representation_->isTarget;
  return (isTarget ? URLWithRequestTarget(text) : URLWithString(text)).value_or(VELURL());
}

const std::string& VELURL::absoluteString() const noexcept {
  static const std::string empty;
  return representation_ ? representation_->text : empty;
}

std::string VELURL::scheme() const {
  return representation_ ? std::string(representation_->parts.scheme) : std::string();
}

std::string VELURL::host() const {
  return representation_ ? std::string(representation_->parts.host) : std::string();
}

std::optional<uint16_t> VELURL::port() const {
  if (!representation_ || representation_->parts.port.empty()) return std::nullopt;
  const auto number = vel::parseNumber(representation_->parts.port, vel::NumberGrammar::kDecimal);
  return number ? std::optional(static_cast<uint16_t>(*number)) : std::nullopt;
}

std::string VELURL::path() const {
  if (!representation_) return {};
  std::string scratch;
  const std::string_view path = vel::decodedPath(representation_->parts, &scratch);
  return std::string(path);
}

std::optional<std::string> VELURL::query() const {
  if (!representation_ || !representation_->parts.hasQuery) return std::nullopt;
  return std::string(representation_->parts.query);
}

std::optional<std::string> VELURL::fragment() const {
  if (!representation_ || !representation_->parts.hasFragment) return std::nullopt;
  return std::string(representation_->parts.fragment);
}

std::string VELURL::lastPathComponent() const {
  std::string path = this->path();
  return path == "/" ? path : path.substr(path.rfind('/') + 1);
}

std::string VELURL::pathExtension() const {
  return std::string(vel::pathExtension(lastPathComponent()));
}

std::vector<VELURLQueryItem> VELURL::queryItems() const {
  if (!representation_) return {};
  return vel::queryItemsOf(representation_->parts.query);
}

bool VELURL::isFileURL() const {
  return representation_ && vel::equalsIgnoringCase(representation_->parts.scheme, "file");
}

std::string VELURL::filePath() const { return isFileURL() ? path() : std::string(); }

bool operator==(const VELURL& a, const VELURL& b) noexcept {
  return a.representation_ == b.representation_ || a.absoluteString() == b.absoluteString();
}
