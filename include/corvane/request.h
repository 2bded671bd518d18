// VELRequest: the record of one HTTP request that routes and middlewares receive.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/data.h"
#include "corvane/dictionary.h"
#include "corvane/export.h"
#include "corvane/regular_expression.h"
#include "corvane/text_encoding.h"
#include "corvane/url.h"
#include "corvane/uuid.h"

class VELConnection;

namespace vel {
class RequestState;
}

/// One request: its head, its parameters and its body. The connection hands it over once the whole body
/// has been read. What is never asked for is never made.
///
/// ```cpp
/// std::string greeting(const VELRequest& request) {
///   auto name = request.GETParameters().find("name");
///   if (name != request.GETParameters().end()) return "Hello " + name->second;
///   return "You said " + request.valueForHeader("User-Agent").value_or("nothing");
/// }
/// ```
/// Owner:   shared by the connection, the route and the middlewares, for as long as any of them holds
///          it. References that it gives are valid until that property is set.
/// Queue:   reading is safe on any thread, several at once; setting is not, except where it says so.
class CORVANE_EXPORT VELRequest {
 public:
  /// A request with a fresh identifier and nothing else.
  VELRequest();
  /// None stands for a fresh identifier.
  explicit VELRequest(std::optional<VELUUID> identifier);
  VELRequest(const VELRequest&) = delete;
  VELRequest& operator=(const VELRequest&) = delete;
  virtual ~VELRequest();

  /// The header fields of the request, by name without regard to case.
  const VELDictionary& headers() const;
  /// A dictionary that compares its keys exactly is looked up by names in upper case only.
  void setHeaders(VELDictionary headers);
  /// The same for the life of the request; also the name of its upload file.
  VELUUID identifier() const;
  void setIdentifier(VELUUID identifier);
  /// None for a request that no connection has filled in.
  std::optional<VELURL> URL() const;
  void setURL(std::optional<VELURL> URL);
  /// As received; methods are case-sensitive (RFC 9110 §9.1).
  std::string method() const;
  void setMethod(std::string method);
  /// A code of corvane/text_encoding.h.
  /// Default: `VELUTF8StringEncoding`.
  unsigned encoding() const;
  void setEncoding(unsigned encoding);
  /// The match of the route's expression over the path; its groups are the path's parameters.
  /// Queue:   getting and setting: any, several at once.
  std::optional<VELTextCheckingResult> textCheckingResult() const;
  void setTextCheckingResult(std::optional<VELTextCheckingResult> textCheckingResult);
  /// The items of the URL's query, percent-decoded; "+" stays as it is.
  /// Shape:   the last of equal names counts; a name without "=" erases it. A name or value with a
  ///          malformed escape, or one that spells no UTF-8, keeps its literal text.
  const VELDictionary& GETParameters() const;
  void setGETParameters(VELDictionary GETParameters);
  /// Empty for form content, and for a request without a content type; none for any other. It is never
  /// filled: a route decodes `bodyData` with `vel_dictionaryWithHTTPFormEncodedString`.
  std::optional<VELDictionary> POSTParameters() const;
  void setPOSTParameters(std::optional<VELDictionary> POSTParameters);
  /// The bytes of the body that were received, chunk framing left out.
  uint64_t contentLength() const;
  void setContentLength(uint64_t contentLength);
  /// The file of a body above the limit for memory (`VELLimits::bodyInMemory`). It goes away when the
  /// connection's next request begins.
  std::optional<VELURL> bodyFileURL() const;
  void setBodyFileURL(std::optional<VELURL> bodyFileURL);
  /// The body in memory; none without a body and when it is in a file.
  std::optional<VELData> bodyData() const;
  void setBodyData(std::optional<VELData> bodyData);
  /// The connection that read the request, as long as it lives.
  std::shared_ptr<VELConnection> connection() const;
  void setConnection(std::weak_ptr<VELConnection> connection);

  /// The path of the URL: percent-decoded, without query, without a trailing slash unless it is the
  /// root. The text that the route's expression was matched against.
  std::string path() const;
  /// Whether the URL's scheme is "https". It says nothing about the transport, which the connection's
  /// `isSecure` tells.
  bool isSecure() const;
  /// The field "Content-Type".
  std::optional<std::string> contentType() const;
  /// The body, from memory or read whole from its file.
  /// Errors:  none when there is no body or its file cannot be read.
  std::optional<VELData> body() const;

  /// The value of a header field: `headers` looked up with the name in upper case.
  std::optional<std::string> valueForHeader(std::string_view name) const;
  std::optional<std::string> operator[](std::string_view name) const {
    return valueForHeader(name);
  }

  std::string description() const;

 protected:
  /// For the library's own use: `state` is a part of the derived object.
  explicit VELRequest(vel::RequestState& state) noexcept;

 private:
  // None where the state is part of a derived object.
  std::unique_ptr<vel::RequestState> owned_;
  vel::RequestState* state_;
};
