// Recycled memory: objects that every request needs once take the place that the one before left.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace vel {

/// One free place for an object of a given size, kept by each thread. Sanitizers that watch for uses after
/// the end see every place given back instead.
template <class T>
class RecycledPlace {
 public:
  static void* take() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    if (void* place = std::exchange(kept().place, nullptr)) return place;
#endif
    return ::operator new(sizeof(T));
  }

  static void giveBack(void* place) noexcept {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    Kept& mine = kept();
    if (mine.place == nullptr && !mine.has_ended) {
      mine.place = place;
      return;
    }
#endif
    ::operator delete(place);
  }

 private:
  struct Kept {
    ~Kept() {
      has_ended = true;
      ::operator delete(place);
      place = nullptr;
    }
    void* place = nullptr;
    bool has_ended = false;
  };
  static Kept& kept() noexcept {
    thread_local Kept kept;
    return kept;
  }
};

/// For `std::allocate_shared`.
template <class T>
struct RecyclingAllocator {
  using value_type = T;

  RecyclingAllocator() noexcept = default;
  template <class U>
  RecyclingAllocator(const RecyclingAllocator<U>&) noexcept {}  // NOLINT: allocators convert

  T* allocate(size_t count) {
    return static_cast<T*>(count == 1 ? RecycledPlace<T>::take()
                                      : ::operator new(count * sizeof(T)));
  }
  void deallocate(T* place, size_t count) noexcept {
    count == 1 ? RecycledPlace<T>::giveBack(place) : ::operator delete(place);
  }

  template <class U>
  bool operator==(const RecyclingAllocator<U>&) const noexcept {
    return true;
  }
};

/// `std::make_shared` in recycled memory.
template <class T, class... Arguments>
std::shared_ptr<T> makeRecycled(Arguments&&... arguments) {
  static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
  return std::allocate_shared<T>(RecyclingAllocator<T>(), std::forward<Arguments>(arguments)...);
}

}  // namespace vel
