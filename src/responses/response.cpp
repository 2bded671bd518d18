// The base of all responses: its fields, and what the body contract says without a body. Bodies and
// fixed answers are the kinds'.
#include "corvane/response.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <memory>
#include <new>

#include "corvane/error.h"
#include "platform/object_description.h"

namespace {

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
  for (const VELHeaderField& field : headerFields()) {
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
  for (const VELHeaderField& field : headerFields()) headers[field.name] = field.value;
  return headers;
}

void VELResponse::setHeaders(const VELDictionary& headers) {
  header_fields_.clear();
  for (const auto& [name, value] : headers) header_fields_.add(name, std::string(value));
}

std::optional<std::string> VELResponse::valueForHeader(std::string_view name) const {
  for (const VELHeaderField& field : headerFields()) {
    if (field.name == name) return field.value;
  }
  return std::nullopt;
}

void VELResponse::setValueForHeader(std::optional<std::string> value, std::string_view name) {
  if (!value) {
    removeValueForHeader(name);
    return;
  }
  if (VELHeaderField* const field = header_fields_.find(name)) {
    field->value = std::move(*value);
  } else {
    header_fields_.add(name, std::move(*value));
  }
}

void VELResponse::removeValueForHeader(std::string_view name) {
  if (const VELHeaderField* const field = header_fields_.find(name)) header_fields_.remove(*field);
}

VELHeaderField* VELResponse::Fields::find(std::string_view name) {
  const std::span<VELHeaderField> fields = all();
  const auto found =
      std::find_if(fields.begin(), fields.end(),
                   [name](const VELHeaderField& field) { return field.name == name; });
  return found != fields.end() ? &*found : nullptr;
}

void VELResponse::Fields::add(std::string_view name, std::string&& value) {
  if (more_.empty() && count_ < kInPlace) {
    new (inPlace() + count_) VELHeaderField(name, std::move(value));
    ++count_;
    return;
  }
  if (more_.empty()) {
    std::vector<VELHeaderField> all;
    all.reserve(2 * kInPlace);
    std::move(inPlace(), inPlace() + count_, std::back_inserter(all));
    std::destroy_n(inPlace(), count_);
    more_ = std::move(all);
  }
  more_.emplace_back(name, std::move(value));
  count_ = more_.size();
}

void VELResponse::Fields::remove(const VELHeaderField& field) {
  VELHeaderField* const place = places() + (&field - places());
  std::move(place + 1, places() + count_, place);
  --count_;
  if (more_.empty()) {
    std::destroy_at(inPlace() + count_);
  } else {
    more_.pop_back();
  }
}

void VELResponse::Fields::clear() {
  if (more_.empty()) std::destroy_n(inPlace(), count_);
  more_.clear();
  count_ = 0;
}

std::string VELResponse::description() const {
  std::array<char, 20> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), status()).ptr;
  return vel::objectDescription(typeid(*this), this) + " { status=\"" +
         std::string(digits.data(), end) + "\" }";
}
