// A reader of requests with bodies for the limit of uploads and for the upstream: it walks the
// body, by length or in chunks, drops its bytes and counts them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace bench {

class RequestReader {
 public:
  // Reads up to the end of the request; the number of bytes used.
  std::size_t read(std::string_view bytes);
  [[nodiscard]] bool isComplete() const { return state_ == State::kComplete; }
  // Of a complete request.
  [[nodiscard]] std::string_view head() const { return head_; }
  [[nodiscard]] std::uint64_t bodyLength() const { return bodyLength_; }

 private:
  // kHead -> kBody -> kComplete for a length; kHead -> (kSize -> kBody)* -> kComplete for chunks. A
  // chunk's body holds the line end after it; that of the last is the end of an empty trailer.
  enum class State { kHead, kSize, kBody, kComplete };

  std::size_t readHead(std::string_view bytes);
  std::size_t readSize(std::string_view bytes);
  void endBody();

  State state_ = State::kHead;
  bool chunked_ = false;
  bool lastChunk_ = false;
  std::uint64_t remaining_ = 0;  // of the body or chunk; while kSize, the size read so far
  std::uint64_t bodyLength_ = 0;
  std::string head_;
};

// Whether the head has the text, in any case.
bool contains(std::string_view head, std::string_view text);

}  // namespace bench
