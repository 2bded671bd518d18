// Transmitter: sends one answer, its head and then its body in pieces. Which answer it is, and what
// comes after it, is left to the connection.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <variant>

#include "corvane/limits.h"
#include "corvane/response.h"
#include "corvane/socket.h"
#include "http/answer_writer.h"
#include "http/body_loop.h"
#include "http/head_serialiser.h"
#include "http/whole_bodies.h"

namespace vel {

/// Adds to a head what every answer has: "Date", "Accept-Ranges", and then the answer's own fields,
/// which replace what stands there already.
void completeHead(std::span<const VELHeaderField> fields, ResponseHeadBuilder* head);

/// Sends a response. The head is its own matter, the body that of a loop:
///
/// | the response is   | the request has       | loop            |
/// | ----------------- | --------------------- | --------------- |
/// | chunked           | anything              | ChunkedBody     |
/// | of a known length | no ranges that count  | PlainBody       |
/// | of a known length | one range             | SingleRangeBody |
/// | of a known length | several ranges        | MultiRangeBody  |
///
/// A small answer that is whole after its first piece goes out as one last write. The connection
/// decides what follows the last write: its tag is not the transmitter's.
///
/// Owner:   the exchange, from the answer on. Keeps references to the socket, the response, limits
///          and what was sent.
/// Queue:   the connection's.
class Transmitter {
 public:
  /// `range` is the value of the request's "Range" field, if it has one that is to be looked at.
  Transmitter(VELSocket& socket, VELResponse& response, const VELLimits& limits, SentBytes& sent,
              std::optional<std::string_view> range = std::nullopt);
  Transmitter(const Transmitter&) = delete;
  Transmitter& operator=(const Transmitter&) = delete;

  /// The status that the head tells.
  uint64_t status() const noexcept { return status_; }

  /// Writes the head, and the first piece of the body unless only the head was asked for.
  Progress begin(bool headOnly);
  /// A write of this answer has completed.
  Progress didWrite(int64_t tag) { return loop_->didWrite(tag); }

 private:
  void chooseRangeLoop(std::string_view range);
  Progress sendWithFirstPiece(const ResponseHeadBuilder& head);

  AnswerWriter writer_;
  VELResponse& response_;
  uint64_t status_;
  bool is_in_part_ = false;
  // Whole bodies have their loops in place.
  std::variant<PlainBody, ChunkedBody, std::unique_ptr<BodyLoop>> loops_;
  BodyLoop* loop_;
};

}  // namespace vel
