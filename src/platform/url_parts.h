// The parts of a URL as views into its text (RFC 3986 §3). Request targets and VELURL are both made of
// this.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vel {

/// Every view points into the text that was split; nothing is decoded.
struct URLParts {
  bool pathHasEscapes = false;
  bool hasQuery = false;
  bool hasFragment = false;
  std::string_view scheme;
  /// Without the brackets of an IPv6 address.
  std::string_view host;
  /// The digits after the host, possibly none.
  std::string_view port;
  std::string_view path;
  /// Without "?" and "#".
  std::string_view query;
  std::string_view fragment;
};

/// The length of the scheme that `text` begins with, without its colon; 0 when there is none.
size_t schemeLength(std::string_view text) noexcept;

/// Splits a path with what follows it. False for a blank, a control character or DEL anywhere, and for a
/// malformed escape in the path. Everything else is let through, as clients send it.
bool splitPath(std::string_view text, URLParts* out) noexcept;

/// Splits what stands between "//" and the path into host and port; user information is skipped.
/// False for an unclosed bracket, a port that is no port, and the bytes that `splitPath` refuses.
bool splitAuthority(std::string_view authority, URLParts* out) noexcept;

/// Splits a URL or a relative reference.
bool splitURL(std::string_view text, URLParts* out) noexcept;

/// The path percent-decoded, without one trailing slash unless it is the root. It may hold any byte,
/// NUL too, when escapes spell it. The result points into the text or, when there was something to
/// decode, into `scratch`.
std::string_view decodedPath(const URLParts& parts, std::string* scratch);

/// `host` as it stands before a port: brackets tell the colons of an IPv6 address from the one that follows.
std::string hostInBrackets(std::string host);

/// What follows the last "." of the last component of a decoded path, unless that "." is the first or last
/// character of the component.
std::string_view pathExtension(std::string_view path) noexcept;

}  // namespace vel
