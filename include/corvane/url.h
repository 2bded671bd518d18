// VELURL: an immutable URL, and the URL of a request. How it is taken apart is internal.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/export.h"

/// One "name=value" of a query, percent-decoded; "+" stays as it is.
struct CORVANE_EXPORT VELURLQueryItem {
  std::string name;
  /// None when the item has no "=".
  std::optional<std::string> value;

  friend bool operator==(const VELURLQueryItem&, const VELURLQueryItem&) = default;
};

/// A URL or a relative reference (RFC 3986).
///
/// ```cpp
/// std::optional<VELURL> url = VELURL::URLWithString("https://example.com:8443/a%20b/?q=1");
/// std::string path = url->path();                 // "/a b"
/// std::optional<uint16_t> port = url->port();     // 8443
/// ```
/// What real clients send is accepted: characters such as "|", "^", "{" or "[" and bytes beyond ASCII.
/// Owner:   copies share one immutable text and are as cheap as a shared pointer.
/// Queue:   any.
class CORVANE_EXPORT VELURL {
 public:
  /// The empty URL, all of whose components are absent.
  VELURL() noexcept = default;

  /// The URL that `string` spells.
  /// Errors:  none when it is empty, holds a blank, a control character or, in its path, a malformed
  ///          percent escape, or names a port that is no port.
  static std::optional<VELURL> URLWithString(std::string_view string);
  /// The URL of an HTTP request, from the target of its first line (RFC 9112 §3.2). Unlike a relative
  /// reference, "//a/b" is a path here.
  /// Errors:  none for a target that is answered with 400.
  static std::optional<VELURL> URLWithRequestTarget(std::string_view target);
  /// The "file" URL of `path`; a relative path is taken from the current directory.
  static VELURL fileURLWithPath(std::string_view path);
  /// This URL with `component`, which is percent-encoded, as a further part of its path. Query and
  /// fragment are left out.
  VELURL URLByAppendingPathComponent(std::string_view component) const;

  /// The whole text, as it was given.
  const std::string& absoluteString() const noexcept;
  /// The scheme as it was given; empty when there is none.
  std::string scheme() const;
  /// The host without the brackets of an IPv6 address; empty when there is none.
  std::string host() const;
  std::optional<uint16_t> port() const;
  /// The path, percent-decoded, without one trailing slash unless it is the root. A path that does not
  /// decode to UTF-8 gives its bytes.
  std::string path() const;
  /// The query as it was given.
  std::optional<std::string> query() const;
  /// The fragment as it was given.
  std::optional<std::string> fragment() const;
  /// The part of the path after its last slash; the root's is "/".
  std::string lastPathComponent() const;
  /// What follows the last "." of the last path component, unless that "." is its first or last
  /// character.
  std::string pathExtension() const;
  /// The items of the query in order. A malformed escape stands for itself.
  std::vector<VELURLQueryItem> queryItems() const;

  bool isFileURL() const;
  /// The path in the file system; empty unless this is a file URL.
  std::string filePath() const;

  /// True when the texts are the same.
  friend CORVANE_EXPORT bool operator==(const VELURL& a, const VELURL& b) noexcept;

 private:
  struct Representation;
  explicit VELURL(std::shared_ptr<const Representation> representation) noexcept;

  std::shared_ptr<const Representation> representation_;
};
