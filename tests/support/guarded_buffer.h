// GuardedBuffer: bytes that end where an unmapped page begins, so that a parser that reads one byte
// too far crashes instead of passing.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace vel::test {

class GuardedBuffer {
 public:
  explicit GuardedBuffer(std::string_view bytes) : size_(bytes.size()) {
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    const size_t readable = (size_ + page) / page * page;
    mappedSize_ = readable + page;
    mapped_ =
        ::mmap(nullptr, mappedSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped_ == MAP_FAILED) std::abort();
    char* const guard = static_cast<char*>(mapped_) + readable;
    if (::mprotect(guard, page, PROT_NONE) != 0) std::abort();
    data_ = guard - size_;
    if (size_ > 0) std::memcpy(data_, bytes.data(), size_);
  }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;
  ~GuardedBuffer() { ::munmap(mapped_, mappedSize_); }

  char* data() const { return data_; }
  size_t size() const { return size_; }
  std::string_view view() const { return {data_, size_}; }

 private:
  size_t size_;
  size_t mappedSize_ = 0;
  void* mapped_ = nullptr;
  char* data_ = nullptr;
};

}  // namespace vel::test
