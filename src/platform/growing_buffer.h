// GrowingBuffer: bytes at whose end more are put, by who writes them there.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace vel {

/// Like a vector of bytes, but room is handed out as it is, and not set to zero first.
class GrowingBuffer {
 public:
  const uint8_t* data() const noexcept { return bytes_.get(); }
  size_t size() const noexcept { return size_; }
  size_t capacity() const noexcept { return capacity_; }
  bool isEmpty() const noexcept { return size_ == 0; }

  /// Room for `length` bytes behind those that are there; `add` makes them part of it.
  uint8_t* room(size_t length) {
    if (capacity_ - size_ < length) reallocate(std::max(size_ + length, 2 * capacity_));
    return bytes_.get() + size_;
  }
  void add(size_t length) noexcept { size_ += length; }
  void append(const uint8_t* bytes, size_t length) {
    if (length == 0) return;
    std::memcpy(room(length), bytes, length);
    add(length);
  }
  /// Drops the first `length` bytes.
  void erase(size_t length) noexcept {
    size_ -= length;
    if (size_ > 0) std::memmove(bytes_.get(), bytes_.get() + length, size_);
  }
  /// Keeps the memory.
  void clear() noexcept { size_ = 0; }
  void shrinkToFit() {
    if (size_ < capacity_) reallocate(size_);
  }

 private:
  void reallocate(size_t capacity) {
    std::unique_ptr<uint8_t[]> bytes(capacity > 0 ? new uint8_t[capacity] : nullptr);
    if (size_ > 0) std::memcpy(bytes.get(), bytes_.get(), size_);
    bytes_ = std::move(bytes);
    capacity_ = capacity;
  }

  std::unique_ptr<uint8_t[]> bytes_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

}  // namespace vel
