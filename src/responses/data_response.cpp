// VELDataResponse: a body in memory, handed out as slices that share it.
#include <algorithm>

#include "corvane/responses.h"

VELDataResponse::VELDataResponse() = default;
VELDataResponse::~VELDataResponse() = default;

std::shared_ptr<VELResponse> VELDataResponse::copy() const {
  auto copy = std::make_shared<VELDataResponse>();
  copyPropertiesTo(*copy);
  copy->data_ = data_;
  return copy;
}

VELData VELDataResponse::readDataOfLength(uint64_t length) {
  if (read_offset_ == 0 && data_.length() <= length) {
    read_offset_ = data_.length();
    return data_;
  }
  const size_t rest = data_.length() - std::min(read_offset_, data_.length());
  const size_t taken = static_cast<size_t>(std::min<uint64_t>(rest, length));
  VELData piece = data_.subdata(read_offset_, taken);
  read_offset_ += taken;
  return piece;
}

bool VELDataResponse::isFinished() const { return read_offset_ == data_.length(); }
