// What an answer has to look like: its head, and a body that may be too long to be kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace bench {

struct AnswerHead {
  std::size_t length = 0;
  std::uint64_t bodyLength = 0;
  bool good = false;  // 200, and its length is known
};

// The head at the beginning of the bytes, or nothing while it is not complete.
std::optional<AnswerHead> readAnswerHead(std::string_view bytes);

// A body that is one text over and over; without a text, bytes of zero.
class RepeatedBody {
 public:
  explicit RepeatedBody(std::string_view text);
  // Whether the bytes are those from `offset` on.
  [[nodiscard]] bool matches(std::uint64_t offset, std::string_view bytes) const;

 private:
  std::string block_;
  std::size_t period_;
};

}  // namespace bench
