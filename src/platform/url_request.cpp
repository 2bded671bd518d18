// VELURLRequest: its fields can be written to a connection as they stand.
#include "corvane/url_request.h"

#include <utility>

#include "corvane/error.h"
#include "platform/ascii.h"
#include "platform/log.h"

namespace {

/// `value` with blanks for what could end a header line, or hide in one (RFC 9110 §5.5).
std::string cleaned(std::string_view value) {
  std::string text(value);
  for (char& c : text) {
    if (vel::isControl(c) && c != '\t') c = ' ';
  }
  return text;
}

}  // namespace

VELURLRequest::VELURLRequest(VELURL URL) : url_(std::move(URL)) {}

void VELURLRequest::setMethod(std::string method) {
  if (!vel::isToken(method)) {
    throw VELException(VELInvalidArgumentException, "A method has to be a token");
  }
  method_ = std::move(method);
}

void VELURLRequest::setAllHTTPHeaderFields(const VELDictionary& fields) {
  const VELDictionary given = fields;
  fields_.clear();
  for (const auto& [field, value] : given) setValueForHTTPHeaderField(value, field);
}

std::optional<std::string> VELURLRequest::valueForHTTPHeaderField(std::string_view field) const {
  const auto found = fields_.find(field);
  if (found == fields_.end()) return std::nullopt;
  return found->second;
}

void VELURLRequest::setValueForHTTPHeaderField(std::optional<std::string_view> value,
                                               std::string_view field) {
  if (!vel::isToken(field)) {
    vel::logLine("Header field with an invalid name left out: " + vel::escapedForLog(field));
    return;
  }
  // Made before the entry goes away, of which both may be a part.
  const std::string name(field);
  const std::optional<std::string> text = value ? std::optional(cleaned(*value)) : std::nullopt;
  // The new entry has the name as it is spelled now.
  fields_.erase(name);
  if (text) fields_.emplace(name, *text);
}

void VELURLRequest::addValueForHTTPHeaderField(std::string_view value, std::string_view field) {
  std::optional<std::string> present = valueForHTTPHeaderField(field);
  setValueForHTTPHeaderField(present ? *present + "," + std::string(value) : std::string(value),
                             field);
}

void VELURLRequest::setBody(std::optional<VELData> body) {
  body_ = std::move(body);
  body_stream_ = nullptr;
}

void VELURLRequest::setBodyStream(std::shared_ptr<VELInputStream> bodyStream) {
  body_stream_ = std::move(bodyStream);
  body_ = std::nullopt;
}
