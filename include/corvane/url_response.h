// VELURLResponse: what came back for a VELURLRequest, its body left out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/dictionary.h"
#include "corvane/export.h"
#include "corvane/url.h"

/// An answer. One that is no `VELHTTPURLResponse` came from something that does not speak HTTP.
///
/// ```cpp
/// bool isGone(const VELURLResponse& response) {
///   auto* answer = dynamic_cast<const VELHTTPURLResponse*>(&response);
///   return answer != nullptr && answer->statusCode() == 410;
/// }
/// ```
/// Owner:   shared; it never changes.
class CORVANE_EXPORT VELURLResponse {
 public:
  explicit VELURLResponse(VELURL URL);
  VELURLResponse(const VELURLResponse&) = delete;
  VELURLResponse& operator=(const VELURLResponse&) = delete;
  virtual ~VELURLResponse();

  /// Where it came from: after redirects, the last location.
  const VELURL& URL() const noexcept { return url_; }

 private:
  const VELURL url_;
};

/// The head of an HTTP answer.
///
/// ```cpp
/// VELDictionary fields(VELKeyOrder{true});
/// fields["Content-Type"] = "text/html";
/// VELHTTPURLResponse response(*VELURL::URLWithString("http://localhost/"), 404, std::move(fields));
/// auto type = response.valueForHTTPHeaderField("content-type");
/// ```
class CORVANE_EXPORT VELHTTPURLResponse final : public VELURLResponse {
 public:
  /// Shape:   `allHeaderFields` by name without regard to case; values of equal names joined by ", ".
  VELHTTPURLResponse(VELURL URL, uint64_t statusCode, VELDictionary allHeaderFields);
  ~VELHTTPURLResponse() override;

  uint64_t statusCode() const noexcept { return status_code_; }
  const VELDictionary& allHeaderFields() const noexcept { return fields_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;

 private:
  const uint64_t status_code_;
  const VELDictionary fields_;
};
