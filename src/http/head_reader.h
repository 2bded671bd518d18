// HeadReader: counts the lines of a request's head and says how its body is framed. The grammar of
// the lines belongs to MessageHead, reading them to the connection.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "corvane/limits.h"
#include "http/habits.h"
#include "http/message_head.h"
#include "platform/ascii.h"

namespace vel {

enum class HeadStep : uint8_t {
  kReadLine,   ///< the head goes on
  kComplete,   ///< the empty line has come
  kMalformed,  ///< no request head has such a line
  kTooLong,    ///< there are too many lines
};

/// Takes the lines of one head.
class HeadReader {
 public:
  HeadStep didRead(std::string_view line, MessageHead* head, const VELLimits& limits) {
    const HeadProgress progress = head->appendLine(line);
    // A message may also begin with a status line, but a client does not send one.
    if (progress == HeadProgress::kMalformed || !head->isRequest()) return HeadStep::kMalformed;
    if (progress == HeadProgress::kComplete) return HeadStep::kComplete;
    ++lines_;
    return admitsLines(lines_, limits) ? HeadStep::kReadLine : HeadStep::kTooLong;
  }

  /// The same with the whole lines at the start of `input`, as many as there are; counts their bytes.
  HeadStep didReadLines(std::string_view input, size_t* taken, MessageHead* head,
                        const VELLimits& limits) {
    const size_t most = limits.headLineLength == 0 ? input.size() : limits.headLineLength;
    HeadStep step = HeadStep::kReadLine;
    while (step == HeadStep::kReadLine) {
      const char* const begin = input.data() + *taken;
      const size_t length = endOfLine({begin, std::min(most, input.size() - *taken)});
      // A line that is too long is left to the read that comes next.
      if (length == 0) break;
      *taken += length;
      step = didRead({begin, length}, head, limits);
    }
    return step;
  }

  /// The lines before the one that ended the head.
  uint64_t lines() const noexcept { return lines_; }

 private:
  uint64_t lines_ = 0;
};

/// How the body that follows a head is framed (RFC 9112 §6).
struct BodyFraming {
  enum class Kind : uint8_t {
    kNone,
    kLength,
    kChunked,
    kBadLength,  ///< "Content-Length" is no number
  };
  Kind kind = Kind::kNone;
  uint64_t length = 0;
};

BodyFraming framingOf(const MessageHead& head) noexcept;

}  // namespace vel
