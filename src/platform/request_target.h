// The target of a request line (RFC 9112 §3.2), taken apart in place: views into the target, nothing
// is allocated. What a URL is to a host stands in corvane/url.h.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/url_parts.h"

namespace vel {

/// The parts of a target. `scheme` belongs to the absolute form only, `host` and `port` to the absolute
/// and the authority form. `path` is "*" in the asterisk form and empty in the authority form; an
/// absolute form without a path has "/" (RFC 9110 §4.2.3). For the path that routes see there is
/// `decodedPath`.
struct RequestTarget : URLParts {
  enum class Form : uint8_t {
    kOrigin,     ///< "/path?query"
    kAbsolute,   ///< "http://host/path?query"
    kAuthority,  ///< "host:port"
    kAsterisk,   ///< "*"
  };

  Form form = Form::kOrigin;
  /// The whole target.
  std::string_view text;
};

/// Takes `target` apart. False for one that is answered with 400: empty, none of the four forms, a
/// blank, a control character or DEL anywhere, or a malformed escape in the path. What clients send
/// beyond RFC 3986 ("|", "^", "{", "[", bytes beyond ASCII) is let through, and so are malformed
/// escapes in the query, which stand for themselves.
bool parseRequestTarget(std::string_view target, RequestTarget* out) noexcept;

}  // namespace vel
