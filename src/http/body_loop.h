// BodyLoop: how the body of an answer goes out, piece by piece. Each framing has a loop of its own.
#pragma once

#include <cstdint>

#include "corvane/data.h"
#include "corvane/response.h"
#include "http/answer_writer.h"
#include "http/head_serialiser.h"

namespace vel {

/// Where an answer stands.
enum class Progress : uint8_t {
  kUnderWay,  ///< a write is outstanding
  kFinished,  ///< no more data came: the answer has ended without a last write
  kStranded,  ///< no more data came within a range: nothing more is sent, and the answer never ends
};

struct BodyPiece {
  VELData data;
  /// Nothing of the answer follows these bytes.
  bool is_last = false;
};

/// Reads the body of a response and writes it in its framing. A piece is read when the one before it
/// has been written, so a slow client never makes a body pile up.
///
/// Owner:   the transmitter. Keeps references to the writer and the response.
/// Queue:   the connection's.
class BodyLoop {
 public:
  BodyLoop(AnswerWriter& writer, VELResponse& response) noexcept
      : writer_(writer), response_(response) {}
  BodyLoop(const BodyLoop&) = delete;
  BodyLoop& operator=(const BodyLoop&) = delete;
  virtual ~BodyLoop() = default;

  /// Sets the fields that tell of the framing. Their texts live as long as the loop.
  virtual void describe(ResponseHeadBuilder* head) = 0;
  /// Reads the first piece, once; nothing is written.
  virtual BodyPiece readFirst() = 0;
  /// Writes the first piece, with what has to stand before it. Whoever wrote a last piece with the head
  /// leaves this out.
  virtual Progress sendFirst(BodyPiece piece) = 0;
  /// A write of this body has completed; the last write's completion is not told.
  virtual Progress didWrite(int64_t tag) = 0;

 protected:
  AnswerWriter& writer_;
  VELResponse& response_;
};

}  // namespace vel
