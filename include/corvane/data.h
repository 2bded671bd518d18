// VELData: immutable bytes that responses, sockets and requests pass along without copying them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/export.h"

/// Immutable bytes with shared storage.
///
/// ```cpp
/// VELData greeting(std::string("Hello, world!"));
/// VELData word = greeting.subdata(0, 5);
/// bool same = word == VELData(std::string("Hello"));
/// ```
/// Owner:   copies share one storage, which goes away with the last of them. A copy of bytes that a
///          callback lends (`dataWithBorrowedBytes`) owns bytes of its own, so keeping a copy is safe.
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

  const uint8_t* bytes() const noexcept { return bytes_; }
  /// Shape:   bytes.
  size_t length() const noexcept { return length_; }
  bool isEmpty() const noexcept { return length_ == 0; }
  /// The bytes as text, whatever they hold.
  std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(bytes_), length_};
  }
  /// A copy of the bytes as text.
  std::string string() const { return std::string(view()); }
  /// The part that begins at `location`, clamped to the bytes that there are; shares the storage.
  VELData subdata(size_t location, size_t length) const;

  friend bool operator==(const VELData& a, const VELData& b) noexcept {
    return a.view() == b.view();
  }

 private:
  const uint8_t* bytes_ = nullptr;
  size_t length_ = 0;
  std::shared_ptr<const void> owner_;
  bool borrowed_ = false;
};
