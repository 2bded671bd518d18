// VELURLRequest: what to ask of a server, for the clients that the library has.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "corvane/data.h"
#include "corvane/dictionary.h"
#include "corvane/export.h"
#include "corvane/input_stream.h"
#include "corvane/url.h"

/// A request that is going to be sent: where to, how, with which fields and which body.
///
/// ```cpp
/// VELURLRequest request(*VELURL::URLWithString("http://localhost:8080/notes"));
/// request.setMethod("POST");
/// request.setValueForHTTPHeaderField("text/plain", "Content-Type");
/// request.setBody(VELData(std::string("Buy bread.")));
/// request.setTimeoutInterval(std::chrono::seconds(10));
/// ```
/// Owner:   a value; a copy is independent, but shares the body stream.
/// Queue:   one thread at a time.
class CORVANE_EXPORT VELURLRequest {
 public:
  /// How long a request may take unless it says otherwise.
  static constexpr std::chrono::milliseconds kDefaultTimeoutInterval{60'000};

  explicit VELURLRequest(VELURL URL);
  static VELURLRequest requestWithURL(VELURL URL) { return VELURLRequest(std::move(URL)); }

  const VELURL& URL() const noexcept { return url_; }
  void setURL(VELURL URL) { url_ = std::move(URL); }
  /// Default: GET.
  const std::string& method() const noexcept { return method_; }
  /// Errors:  raises an invalid-argument exception for what is no token (RFC 9110 §9.1).
  void setMethod(std::string method);

  /// Every field, by name without regard to case.
  const VELDictionary& allHTTPHeaderFields() const noexcept { return fields_; }
  /// Replaces every field; each is set as by `setValueForHTTPHeaderField`.
  void setAllHTTPHeaderFields(const VELDictionary& fields);
  /// The field's value, whatever the case of its name.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  /// Sets or replaces the field; none removes it.
  /// Errors:  CR, LF, NUL and other control characters in a value become blanks; a name that is no
  ///          token is left out, with a log line (RFC 9110 §5.5).
  void setValueForHTTPHeaderField(std::optional<std::string_view> value, std::string_view field);
  /// Adds a value to those that the field has, after a comma.
  void addValueForHTTPHeaderField(std::string_view value, std::string_view field);

  /// Default: none.
  const std::optional<VELData>& body() const noexcept { return body_; }
  /// Takes the place of a body stream.
  void setBody(std::optional<VELData> body);
  /// Default: none.
  const std::shared_ptr<VELInputStream>& bodyStream() const noexcept { return body_stream_; }
  /// Takes the place of a body. The stream is not open yet; who sends the request opens it.
  void setBodyStream(std::shared_ptr<VELInputStream> bodyStream);

  /// What the sender allows for connecting and for each wait for the server.
  /// Default: `kDefaultTimeoutInterval`; negative: for ever.
  std::chrono::milliseconds timeoutInterval() const noexcept { return timeout_interval_; }
  void setTimeoutInterval(std::chrono::milliseconds timeoutInterval) {
    timeout_interval_ = timeoutInterval;
  }

 private:
  VELURL url_;
  std::string method_ = "GET";
  VELDictionary fields_{VELKeyOrder{true}};
  std::optional<VELData> body_;
  std::shared_ptr<VELInputStream> body_stream_;
  std::chrono::milliseconds timeout_interval_ = kDefaultTimeoutInterval;
};
