// VELData: immutable bytes that responses, sockets and requests pass along without copying them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/export.h"

namespace vel {
class FileRegion;
}

/// Immutable bytes with shared storage.
///
/// ```cpp
/// VELData greeting(std::string("Hello, world!"));
/// VELData word = greeting.subdata(0, 5);
/// bool same = word == VELData(std::string("Hello"));
/// ```
/// Owner:   copies share one storage, which goes away with the last of them. A copy of bytes that a
///          callback lends (`dataWithBorrowedBytes`) owns bytes of its own, so keeping a copy is safe.
///          What file responses give stands for a part of an open file: a socket sends it from there, and
///          only who asks for its bytes has them read into memory.
/// Queue:   any; the bytes never change.
class CORVANE_EXPORT VELData {
 public:
  /// No bytes.
  VELData() noexcept = default;
  /// Takes over the bytes of `bytes`.
  explicit VELData(std::string bytes);
  /// Takes over `bytes`.
  explicit VELData(std::vector<uint8_t> bytes);
  VELData(const VELData& other);
  VELData(VELData&& other) noexcept;
  VELData& operator=(const VELData& other);
  VELData& operator=(VELData&& other) noexcept;
  ~VELData() = default;

  /// Copies `length` bytes.
  static VELData dataWithBytes(const void* bytes, size_t length);
  /// Bytes that `owner` keeps alive.
  static VELData dataWithOwner(std::shared_ptr<const void> owner, const void* bytes, size_t length);
  /// Bytes that live as long as the program, a literal for instance.
  static VELData dataWithStaticBytes(std::string_view bytes) noexcept;
  /// Bytes that are valid only during a call; a copy of the result owns its bytes.
  static VELData dataWithBorrowedBytes(const void* bytes, size_t length) noexcept;

  /// Errors:  bytes of a file that can no longer be read, because it has become shorter, are zero.
  const uint8_t* bytes() const { return kind_ == Kind::kFileRegion ? bytesOfRegion() : bytes_; }
  /// Shape:   bytes.
  size_t length() const noexcept { return length_; }
  bool isEmpty() const noexcept { return length_ == 0; }
  /// The bytes as text, whatever they hold.
  std::string_view view() const { return {reinterpret_cast<const char*>(bytes()), length_}; }
  /// A copy of the bytes as text.
  std::string string() const { return std::string(view()); }
  /// The part that begins at `location`, clamped to the bytes that there are; shares the storage.
  VELData subdata(size_t location, size_t length) const;

  friend bool operator==(const VELData& a, const VELData& b) { return a.view() == b.view(); }

 private:
  friend class vel::FileRegion;
  enum class Kind : uint8_t { kOwned, kBorrowed, kFileRegion };

  const uint8_t* bytesOfRegion() const;

  const uint8_t* bytes_ = nullptr;
  size_t length_ = 0;
  std::shared_ptr<const void> owner_;
  // A `vel::FileRegion` owns the bytes that are one.
  Kind kind_ = Kind::kOwned;
};
