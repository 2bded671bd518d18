// Transmitter: sends one answer, its head and then its body in pieces. Which answer it is, and what
// comes after it, is left to the connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "corvane/data.h"
#include "corvane/limits.h"
#include "corvane/response.h"
#include "corvane/socket.h"
#include "http/head_serialiser.h"

namespace vel {

/// What was handed to the socket for one answer.
struct SentBytes {
  uint64_t all = 0;
  uint64_t body = 0;
};

/// Adds to a head what every answer has: "Date", "Accept-Ranges", and then the answer's own fields,
/// which replace what stands there already.
void completeHead(std::span<const VELHeaderField> fields, ResponseHeadBuilder* head);

/// Writes `head` to `socket`.
void writeHead(const ResponseHeadBuilder& head, int64_t tag, const VELLimits& limits,
               VELSocket* socket, SentBytes* sent);

/// Sends a response. At most one piece of its body is in the socket's hands: a piece is read when
/// the one before it has been written, so a slow client never makes a body pile up.
///
/// | written        | then                                                           |
/// | -------------- | -------------------------------------------------------------- |
/// | head           | nothing: the first piece was written behind it                 |
/// | plain piece    | the next piece is read and written                             |
/// | size line      | nothing                                                        |
/// | chunk          | nothing: its CR LF, or the footer, was written with it         |
/// | CR LF of chunk | the next piece is read and written                             |
/// | last write     | the connection decides: this is its tag, not the transmitter's |
///
/// A small answer that is whole after its first piece goes out as one last write.
///
/// Owner:   the exchange, from the answer on. Keeps references to the socket, the response and
///          limits.
/// Queue:   the connection's.
class Transmitter {
 public:
  enum class Progress : uint8_t {
    kUnderWay,  ///< a write is outstanding
    kFinished,  ///< no more data came: the answer has ended without a last write
  };

  Transmitter(VELSocket& socket, VELResponse& response, const VELLimits& limits, SentBytes& sent)
      : socket_(socket), response_(response), limits_(limits), sent_(sent) {}

  /// Writes the head, and the first piece of the body unless only the head was asked for.
  Progress begin(bool headOnly);
  /// A write of this answer has completed.
  Progress didWrite(int64_t tag);

 private:
  // How the body is framed. Ranges of the body are to be strategies of their own; a request's
  // "Range" field is not asked before.
  enum class Strategy : uint8_t { kPlain, kChunked };

  Strategy chooseStrategy() const;
  Progress sendWithFirstPiece(const ResponseHeadBuilder& head);
  Progress sendNextPiece();
  Progress sendPiece(VELData piece, bool is_last);
  Progress bodyRanDry() const;
  void sendChunk(VELData piece, bool is_last);
  void writeControl(VELData data, int64_t tag);
  void writeBody(VELData piece, int64_t tag);

  VELSocket& socket_;
  VELResponse& response_;
  const VELLimits& limits_;
  SentBytes& sent_;
  Strategy strategy_ = Strategy::kPlain;
  // Length of the piece that the socket has not written yet.
  size_t in_flight_ = 0;
};

/// The bytes of a chunk-size line, without an allocation.
class ChunkSizeLine {
 public:
  explicit ChunkSizeLine(uint64_t length) noexcept;
  std::string_view view() const noexcept { return {text_, length_}; }

 private:
  static constexpr size_t kLongest = 18;
  char text_[kLongest];
  size_t length_;
};

/// What ends a body in chunks.
std::string_view chunkedFooter() noexcept;

}  // namespace vel
