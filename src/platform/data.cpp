#include "corvane/data.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/file_region.h"

VELData::VELData(std::string bytes) {
  auto owner = std::make_shared<const std::string>(std::move(bytes));
  bytes_ = reinterpret_cast<const uint8_t*>(owner->data());
  length_ = owner->size();
  owner_ = std::move(owner);
}

VELData::VELData(std::vector<uint8_t> bytes) {
  auto owner = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
  bytes_ = owner->data();
  length_ = owner->size();
  owner_ = std::move(owner);
}

VELData::VELData(const VELData& other) {
  if (other.kind_ == Kind::kBorrowed) {
    *this = dataWithBytes(other.bytes_, other.length_);
  } else {
    bytes_ = other.bytes_;
    length_ = other.length_;
    owner_ = other.owner_;
    kind_ = other.kind_;
  }
}

VELData::VELData(VELData&& other) noexcept
    : bytes_(std::exchange(other.bytes_, nullptr)),
      length_(std::exchange(other.length_, 0)),
      owner_(std::move(other.owner_)),
      kind_(std::exchange(other.kind_, Kind::kOwned)) {}

VELData& VELData::operator=(const VELData& other) {
  if (this != &other) *this = VELData(other);
  return *this;
}

VELData& VELData::operator=(VELData&& other) noexcept {
  bytes_ = std::exchange(other.bytes_, nullptr);
  length_ = std::exchange(other.length_, 0);
  owner_ = std::move(other.owner_);
  kind_ = std::exchange(other.kind_, Kind::kOwned);
  return *this;
}

VELData VELData::dataWithBytes(const void* bytes, size_t length) {
  if (length == 0) return VELData();
  std::shared_ptr<uint8_t[]> owner(new uint8_t[length]);
  std::memcpy(owner.get(), bytes, length);
  const uint8_t* copy = owner.get();
  return dataWithOwner(std::move(owner), copy, length);
}

VELData VELData::dataWithOwner(std::shared_ptr<const void> owner, const void* bytes,
                               size_t length) {
  VELData data;
  data.bytes_ = static_cast<const uint8_t*>(bytes);
  data.length_ = length;
  data.owner_ = std::move(owner);
  return data;
}

VELData VELData::dataWithStaticBytes(std::string_view bytes) noexcept {
  VELData data;
  data.bytes_ = reinterpret_cast<const uint8_t*>(bytes.data());
  data.length_ = bytes.size();
  return data;
}

VELData VELData::dataWithBorrowedBytes(const void* bytes, size_t length) noexcept {
  VELData data;
  data.bytes_ = static_cast<const uint8_t*>(bytes);
  data.length_ = length;
  data.kind_ = Kind::kBorrowed;
  return data;
}

VELData VELData::subdata(size_t location, size_t length) const {
  location = std::min(location, length_);
  length = std::min(length, length_ - location);
  if (const vel::FileRegion* region = vel::FileRegion::of(*this)) {
    return region->part(location, length);
  }
  VELData data;
  data.bytes_ = bytes_ + location;
  data.length_ = length;
  data.owner_ = owner_;
  data.kind_ = kind_;
  return data;
}

const uint8_t* VELData::bytesOfRegion() const { return vel::FileRegion::of(*this)->bytes(); }
