// VELHTTPMessage: the head of an HTTP/1.x message, parsed from or serialised to the wire.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/data.h"
#include "corvane/dictionary.h"
#include "corvane/export.h"
#include "corvane/url.h"

namespace vel {
class MessageHead;
}

/// The version texts that the library speaks (RFC 9112 §2.3).
inline constexpr std::string_view VELHTTPVersion1_0 = "HTTP/1.0";
inline constexpr std::string_view VELHTTPVersion1_1 = "HTTP/1.1";

/// The standard reason phrase of a status code; empty for one that has none (RFC 9110 §15).
CORVANE_EXPORT std::string_view VELReasonPhrase(int64_t statusCode);

/// A message head, with a body when one was set.
///
/// ```cpp
/// VELHTTPMessage answer = VELHTTPMessage::response(404, std::nullopt, "HTTP/1.1");
/// answer.setValueForHeaderField("0", "Content-Length");
/// std::string wire = answer.messageData().string();
/// ```
/// Owner:   a value; a copy is independent.
/// Queue:   one thread at a time.
class CORVANE_EXPORT VELHTTPMessage {
 public:
  /// Raises an invalid-argument exception: messages come from the operations below.
  VELHTTPMessage();
  VELHTTPMessage(const VELHTTPMessage& other);
  VELHTTPMessage(VELHTTPMessage&& other) noexcept;
  VELHTTPMessage& operator=(const VELHTTPMessage& other);
  VELHTTPMessage& operator=(VELHTTPMessage&& other) noexcept;
  ~VELHTTPMessage();

  /// A message without a start line, ready for `appendData`. A status line makes it a response.
  static VELHTTPMessage emptyRequest();
  /// Shape:   the start line has the path and query of a URL with a host (RFC 9112 §3.2.1), and the
  ///          whole text of any other.
  static VELHTTPMessage request(std::string_view method, const VELURL& url,
                                std::string_view version);
  /// Default: no description stands for the standard reason phrase.
  static VELHTTPMessage response(int64_t statusCode, std::optional<std::string_view> description,
                                 std::string_view version);
  VELHTTPMessage copy() const { return *this; }

  /// Parses further bytes: the start line, header lines, the empty line. Bytes after it are the body.
  /// Shape:   any split of the bytes; a line counts once its LF has come.
  ///          Empty lines before the start line are skipped. A folded header line is joined to the one
  ///          before it, in a response.
  /// Errors:  false for a malformed start line or header line (RFC 9112 §3, §4, §5), a folded line in a
  ///          request, and "Content-Length" fields that differ; for good.
  bool appendData(std::string_view bytes);
  bool isHeaderComplete() const;
  bool isRequest() const;

  /// The version of the start line, "HTTP/1.1" for instance; empty before there is one.
  std::string_view version() const;
  std::string_view method() const;
  /// None for a response and before the start line.
  std::optional<VELURL> URL() const;
  /// 0 for a request.
  int64_t statusCode() const;

  /// Every header field, by name without regard to case. A name that came several times has its values
  /// joined with ", " (RFC 9110 §5.3), "Cookie" with "; ".
  VELDictionary headers() const;
  /// The field's value, whatever the case of its name.
  std::optional<std::string> valueForHeaderField(std::string_view name) const;
  /// Sets or replaces a field.
  /// Errors:  CR, LF, NUL and other control characters in a value become spaces; a name that is no
  ///          token is left out, with a log line (RFC 9110 §5.5).
  void setValueForHeaderField(std::string_view value, std::string_view name);

  VELData body() const;
  void setBody(VELData body);

  /// The message on the wire: start line, fields, empty line, body. Nothing is added.
  /// Shape:   of a received head that was not changed: its lines as they came, with CR LF as line ends.
  VELData messageData() const;

  std::optional<std::string> operator[](std::string_view name) const {
    return valueForHeaderField(name);
  }
  void setObjectForKeyedSubscript(std::string_view value, std::string_view name) {
    setValueForHeaderField(value, name);
  }

  std::string description() const;

  /// For the library's own use.
  const vel::MessageHead& head() const;
  vel::MessageHead& head();

 private:
  struct Content;
  explicit VELHTTPMessage(std::unique_ptr<Content> content);

  std::unique_ptr<Content> content_;
};
