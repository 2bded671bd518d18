// AnswerWriter: hands the parts of one answer to the socket, with their times, and counts them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "corvane/data.h"
#include "corvane/limits.h"
#include "corvane/socket.h"
#include "http/head_serialiser.h"

namespace vel {

/// What was handed to the socket for one answer.
struct SentBytes {
  uint64_t all = 0;
  uint64_t body = 0;
};

/// Heads, and what frames a body, have the time-out of heads; pieces of a body have none, so that a
/// slow reader is never cut off in the middle of one.
///
/// Owner:   a value on the way of an answer. Keeps references.
/// Queue:   the connection's.
class AnswerWriter {
 public:
  AnswerWriter(VELSocket& socket, const VELLimits& limits, SentBytes& sent) noexcept
      : socket_(socket), limits_(limits), sent_(sent) {}

  /// The largest piece of a body.
  uint64_t largestPiece() const noexcept { return limits_.bodyPiece; }

  void writeHead(const ResponseHeadBuilder& head, int64_t tag);
  /// Writes `head`, which has `bodyLength` bytes of the body at its end. It lives during the call only.
  void writeHeadWithBody(std::string_view head, size_t bodyLength, int64_t tag) {
    sent_.body += bodyLength;
    writeFrame(head, tag);
  }
  /// Writes what frames a body.
  void writeFrame(VELData data, int64_t tag);
  /// The same for text that lives during the call only.
  void writeFrame(std::string_view text, int64_t tag) {
    sent_.all += text.size();
    socket_.writeData(VELData::dataWithBorrowedBytes(text.data(), text.size()),
                      limits_.headWriteTimeout, tag);
  }
  void writeBody(VELData piece, int64_t tag);

 private:
  VELSocket& socket_;
  const VELLimits& limits_;
  SentBytes& sent_;
};

/// What is put together on the stack.
inline constexpr size_t kSmallAnswer = 1024;

}  // namespace vel
