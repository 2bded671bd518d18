// The loops of whole bodies: plain, with a length that the head tells, and in chunks (RFC 9112 §6).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "http/body_loop.h"

namespace vel {

/// | written     | then                            |
/// | ----------- | ------------------------------- |
/// | plain piece | the next piece is read and sent |
///
/// A read without data ends the answer, whatever length was announced. The client is told only by the
/// end of the connection, if it ends.
class PlainBody final : public BodyLoop {
 public:
  using BodyLoop::BodyLoop;

  void describe(ResponseHeadBuilder* head) override;
  BodyPiece readFirst() override { return read(); }
  Progress sendFirst(BodyPiece piece) override { return send(std::move(piece)); }
  Progress didWrite(int64_t tag) override;

 private:
  BodyPiece read();
  Progress send(BodyPiece piece);
};

/// | written        | then                                                   |
/// | -------------- | ------------------------------------------------------ |
/// | size line      | nothing                                                |
/// | chunk          | nothing: its CR LF, or the footer, was written with it |
/// | CR LF of chunk | the next piece is read and sent                        |
///
/// A read without data ends the answer, and the body is left without its footer.
class ChunkedBody final : public BodyLoop {
 public:
  using BodyLoop::BodyLoop;

  void describe(ResponseHeadBuilder* head) override;
  BodyPiece readFirst() override;
  Progress sendFirst(BodyPiece piece) override { return send(std::move(piece.data)); }
  Progress didWrite(int64_t tag) override;

 private:
  VELData read();
  Progress send(VELData piece);
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
