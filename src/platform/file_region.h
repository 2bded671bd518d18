// FileRegion: a part of an open file that goes from hand to hand as VELData.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "corvane/data.h"
#include "platform/file.h"

namespace vel {

/// Owner:   the data that stands for it and its copies.
/// Queue:   any.
class FileRegion {
 public:
  /// Bytes of `file` that stand for themselves until somebody asks for them.
  static VELData dataWithRegion(std::shared_ptr<const FileDescriptor> file, uint64_t offset,
                                size_t length);
  /// The region that `data` stands for, if it stands for one.
  static const FileRegion* of(const VELData& data) noexcept {
    if (data.kind_ != VELData::Kind::kFileRegion) return nullptr;
    return static_cast<const FileRegion*>(data.owner_.get());
  }

  /// `data` itself, or the bytes that there are of the region that it stands for.
  static VELData inMemory(VELData data);

  FileRegion(std::shared_ptr<const FileDescriptor> file, uint64_t offset, size_t length) noexcept
      : file_(std::move(file)), offset_(offset), length_(length) {}

  const FileDescriptor& file() const noexcept { return *file_; }
  uint64_t offset() const noexcept { return offset_; }
  VELData part(size_t location, size_t length) const;

  /// Reads from `location` on, into memory of the caller's. Returns fewer bytes than asked for only where
  /// the file ends too early or cannot be read.
  size_t read(size_t location, void* out, size_t length) const noexcept;
  /// Read once and kept; what cannot be read is zero.
  const uint8_t* bytes() const;

 private:
  const std::shared_ptr<const FileDescriptor> file_;
  const uint64_t offset_;
  const size_t length_;
  mutable std::once_flag is_read_;
  mutable std::unique_ptr<uint8_t[]> bytes_;
};

}  // namespace vel
