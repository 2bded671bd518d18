// ExactCopy: bytes in a block of exactly their size, so that AddressSanitizer sees a parser that reads
// one byte too far. The input of a target is such a block as a whole; a part of it is not.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>

namespace vel::fuzz {

class ExactCopy {
 public:
  explicit ExactCopy(std::string_view bytes) : bytes_(new char[bytes.size()]), size_(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), bytes_.get());
  }

  std::string_view view() const noexcept { return {bytes_.get(), size_}; }

 private:
  std::unique_ptr<char[]> bytes_;
  size_t size_;
};

}  // namespace vel::fuzz
