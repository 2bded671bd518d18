// The four forms of a request target.
#include "platform/request_target.h"

#include <cstddef>

namespace vel {
namespace {

bool parseAbsolute(std::string_view target, RequestTarget* out) noexcept {
  out->form = RequestTarget::Form::kAbsolute;
  if (!splitURL(target, out)) return false;
  if (out->path.empty()) out->path = "/";
  // A URL of a server names one: RFC 9110 §4.2.1.
  return !out->host.empty();
}

/// "host:port" needs both; user information has no place in it (RFC 9112 §3.2.3).
bool parseAuthority(std::string_view target, RequestTarget* out) noexcept {
  out->form = RequestTarget::Form::kAuthority;
  if (target.find_first_of("/?#@") != std::string_view::npos) return false;
  return splitAuthority(target, out) && !out->host.empty() && !out->port.empty();
}

}  // namespace

bool parseRequestTarget(std::string_view target, RequestTarget* out) noexcept {
  *out = RequestTarget();
  out->text = target;
  if (target.starts_with('/')) return splitPath(target, out);
  if (target == "*") {
    out->form = RequestTarget::Form::kAsterisk;
    out->path = target;
    return true;
  }
  const size_t scheme = schemeLength(target);
  if (scheme > 0 && target.substr(scheme).starts_with("://")) return parseAbsolute(target, out);
  return parseAuthority(target, out);
}

}  // namespace vel
