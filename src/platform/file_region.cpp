#include "platform/file_region.h"

#include <algorithm>

#include "platform/recycled.h"

namespace vel {

VELData FileRegion::dataWithRegion(std::shared_ptr<const FileDescriptor> file, uint64_t offset,
                                   size_t length) {
  VELData data;
  if (length == 0) return data;
  data.owner_ = makeRecycled<FileRegion>(std::move(file), offset, length);
  data.length_ = length;
  data.kind_ = VELData::Kind::kFileRegion;
  return data;
}

VELData FileRegion::inMemory(VELData data) {
  const FileRegion* region = of(data);
  if (region == nullptr) return data;
  const auto storage = std::make_shared_for_overwrite<uint8_t[]>(region->length_);
  const size_t count = region->read(0, storage.get(), region->length_);
  return VELData::dataWithOwner(storage, storage.get(), count);
}

VELData FileRegion::part(size_t location, size_t length) const {
  return dataWithRegion(file_, offset_ + location, length);
}

size_t FileRegion::read(size_t location, void* out, size_t length) const noexcept {
  length = std::min(length, length_ - location);
  return static_cast<size_t>(
      std::max<ptrdiff_t>(readAt(*file_, out, length, offset_ + location), 0));
}

const uint8_t* FileRegion::bytes() const {
  std::call_once(is_read_, [this] {
    auto bytes = std::make_unique<uint8_t[]>(length_);
    read(0, bytes.get(), length_);
    bytes_ = std::move(bytes);
  });
  return bytes_.get();
}

}  // namespace vel
