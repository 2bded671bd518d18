// InlineVector: a growing array of plain values whose first few live inside it, so that the usual case
// allocates nothing and making one costs nothing.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

namespace vel {

/// Up to `kInline` values without an allocation. Values are copied as bytes.
template <typename T, size_t kInline>
class InlineVector {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

 public:
  InlineVector() noexcept : values_(inlineValues()) {}
  InlineVector(const InlineVector& other) : values_(inlineValues()) { assign(other); }
  InlineVector(InlineVector&& other) noexcept { take(std::move(other)); }
  InlineVector& operator=(const InlineVector& other) {
    if (this != &other) assign(other);
    return *this;
  }
  InlineVector& operator=(InlineVector&& other) noexcept {
    if (this != &other) take(std::move(other));
    return *this;
  }
  ~InlineVector() = default;

  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  T* begin() noexcept { return values_; }
  T* end() noexcept { return values_ + size_; }
  const T* begin() const noexcept { return values_; }
  const T* end() const noexcept { return values_ + size_; }
  T& operator[](size_t index) noexcept { return values_[index]; }
  const T& operator[](size_t index) const noexcept { return values_[index]; }

  void push_back(T value) {
    if (size_ == capacity_) [[unlikely]] {
      reserve(capacity_ * 2);
    }
    values_[size_++] = value;
  }

  /// Keeps the first `size` values.
  void truncate(size_t size) noexcept { size_ = size; }

 private:
  T* inlineValues() noexcept { return static_cast<T*>(static_cast<void*>(inline_)); }

  [[gnu::noinline]] void reserve(size_t capacity) {
    std::unique_ptr<T[]> further(new T[capacity]);
    std::memcpy(further.get(), values_, size_ * sizeof(T));
    further_ = std::move(further);
    values_ = further_.get();
    capacity_ = capacity;
  }

  void assign(const InlineVector& other) {
    size_ = 0;
    if (other.size_ > capacity_) reserve(other.size_);
    std::memcpy(values_, other.values_, other.size_ * sizeof(T));
    size_ = other.size_;
  }

  void take(InlineVector&& other) noexcept {
    further_ = std::move(other.further_);
    values_ = further_ ? further_.get() : inlineValues();
    capacity_ = std::exchange(other.capacity_, kInline);
    size_ = std::exchange(other.size_, 0);
    if (!further_) std::memcpy(inline_, other.inline_, size_ * sizeof(T));
    other.values_ = other.inlineValues();
  }

  T* values_;
  size_t size_ = 0;
  size_t capacity_ = kInline;
  std::unique_ptr<T[]> further_;
  alignas(T) std::byte inline_[kInline * sizeof(T)];
};

}  // namespace vel
