// The base of all responses: its fields, and what the body contract says without a body. Bodies and
// fixed answers are the kinds'.
#include "corvane/response.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "corvane/error.h"
#include "platform/object_description.h"

namespace {

// Most answers carry no more fields than these.
constexpr size_t kUsualFields = 4;

[[noreturn]] void raiseMustOverride(const char* operation) {
  throw VELException(VELInvalidArgumentException,
                     std::string("Subclasses must override ") + operation);
}

}  // namespace

VELResponse::VELResponse() = default;
VELResponse::~VELResponse() = default;

std::shared_ptr<VELResponse> VELResponse::copy() const {
  auto copy = std::make_shared<VELResponse>();
  copyPropertiesTo(*copy);
  return copy;
}

void VELResponse::copyPropertiesTo(VELResponse& copy) const {
  for (const VELHeaderField& field : header_fields_) {
    copy.setValueForHeader(field.value, field.name);
  }
  copy.setStatus(status());
  copy.status_description_ = status_description_;
  copy.content_length_ = content_length_;
  copy.chunked_ = chunked_;
  copy.setOffset(offset_);
}

VELData VELResponse::readDataOfLength(uint64_t /*length*/) {
  raiseMustOverride("readDataOfLength:");
}

bool VELResponse::isFinished() const { raiseMustOverride("isFinished"); }

void VELResponse::connectionDidClose() {}

VELDictionary VELResponse::headers() const {
  VELDictionary headers;
  for (const VELHeaderField& field : header_fields_) headers[field.name] = field.value;
  return headers;
}

void VELResponse::setHeaders(const VELDictionary& headers) {
  header_fields_.clear();
  header_fields_.reserve(headers.size());
  for (const auto& [name, value] : headers) header_fields_.emplace_back(name, std::string(value));
}

std::optional<std::string> VELResponse::valueForHeader(std::string_view name) const {
  for (const VELHeaderField& field : header_fields_) {
    if (field.name == name) return field.value;
  }
  return std::nullopt;
}

void VELResponse::setValueForHeader(std::optional<std::string> value, std::string_view name) {
  if (!value) {
    removeValueForHeader(name);
    return;
  }
  const auto field = findField(name);
  if (field != header_fields_.end()) {
    field->value = std::move(*value);
    return;
  }
  addField(name, std::move(*value));
}

void VELResponse::addField(std::string_view name, std::string&& value) {
  if (header_fields_.empty()) header_fields_.reserve(kUsualFields);
  header_fields_.emplace_back(name, std::move(value));
}

void VELResponse::removeValueForHeader(std::string_view name) {
  const auto field = findField(name);
  if (field != header_fields_.end()) header_fields_.erase(field);
}

std::vector<VELHeaderField>::iterator VELResponse::findField(std::string_view name) {
  return std::find_if(header_fields_.begin(), header_fields_.end(),
                      [name](const VELHeaderField& field) { return field.name == name; });
}

std::string VELResponse::description() const {
  std::array<char, 20> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), status()).ptr;
  return vel::objectDescription(typeid(*this), this) + " { status=\"" +
         std::string(digits.data(), end) + "\" }";
}
