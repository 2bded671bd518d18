// The framings of a request's body (RFC 9112 §6): which read comes next, and where the body ends.
// Bytes in, next step out; reading itself is left to the connection, keeping the bytes to the body
// store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "corvane/limits.h"
#include "http/tags.h"

namespace vel {

/// What has to happen next for a body.
struct BodyStep {
  enum class Kind : uint8_t {
    kReadLine,   ///< read a line of at most `length` bytes with `tag`
    kReadBytes,  ///< read exactly `length` bytes with `tag`
    kComplete,   ///< the body has been received
    kBadSize,    ///< a chunk-size line announces no size
    kBadChunk,   ///< chunk data is not followed by CR LF
    kTooLong,    ///< there are too many lines
  };
  Kind kind;
  int64_t tag = 0;
  size_t length = 0;
};

/// A body whose length was announced.
class LengthBodyReader {
 public:
  /// `piece` is the most that is read at once.
  LengthBodyReader(uint64_t length, size_t piece) noexcept : remaining_(length), piece_(piece) {}

  BodyStep begin() const noexcept { return next(); }
  BodyStep didRead(std::string_view bytes) noexcept;

 private:
  BodyStep next() const noexcept;

  uint64_t remaining_;
  size_t piece_;
};

/// A body in chunks (RFC 9112 §7.1).
///
/// | state     | what came                     | then      | and read                        |
/// |-----------|-------------------------------|-----------|---------------------------------|
/// | size line | a size above 0                | data      | a piece of the chunk            |
/// | size line | the size 0                    | trailer   | a trailer line                  |
/// | size line | no size                       |           | nothing: bad size               |
/// | data      | a piece, the chunk goes on    | data      | the next piece                  |
/// | data      | the last piece of the chunk   | data end  | two bytes                       |
/// | data end  | CR LF                         | size line | a chunk-size line               |
/// | data end  | anything else                 |           | nothing: bad chunk              |
/// | trailer   | a line too many               |           | nothing: too long               |
/// | trailer   | the empty line                |           | nothing: complete               |
/// | trailer   | a field, which is discarded   | trailer   | the next trailer line           |
class ChunkedBodyReader {
 public:
  /// `headLines` is the number of lines that the head had before its empty one: head and trailer
  /// share their limit. Keeps a reference to `limits`.
  ChunkedBodyReader(uint64_t headLines, const VELLimits& limits) noexcept
      : lines_(headLines), limits_(&limits) {}

  BodyStep begin() const noexcept { return readSizeLine(); }
  BodyStep didRead(std::string_view bytes) noexcept;

 private:
  enum class State : uint8_t { kSizeLine, kData, kDataEnd, kTrailer };

  BodyStep readSizeLine() const noexcept;
  BodyStep readData() const noexcept;
  BodyStep readTrailerLine() const noexcept;
  BodyStep sizeLineDidCome(std::string_view line) noexcept;
  BodyStep dataDidCome(std::string_view bytes) noexcept;
  BodyStep trailerLineDidCome(std::string_view line) noexcept;

  State state_ = State::kSizeLine;
  // What is left of the present chunk.
  uint64_t remaining_ = 0;
  uint64_t lines_;
  const VELLimits* limits_;
};

}  // namespace vel
