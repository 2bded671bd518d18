#include "corvane/url_response.h"

#include <utility>

VELURLResponse::VELURLResponse(VELURL URL) : url_(std::move(URL)) {}

VELURLResponse::~VELURLResponse() = default;

VELHTTPURLResponse::VELHTTPURLResponse(VELURL URL, uint64_t statusCode,
                                       VELDictionary allHeaderFields)
    : VELURLResponse(std::move(URL)),
      status_code_(statusCode),
      fields_(std::move(allHeaderFields)) {}

VELHTTPURLResponse::~VELHTTPURLResponse() = default;

std::optional<std::string> VELHTTPURLResponse::valueForHTTPHeaderField(
    std::string_view field) const {
  const auto found = fields_.find(field);
  return found == fields_.end() ? std::nullopt : std::optional(found->second);
}
