#include "http/whole_bodies.h"

#include <charconv>
#include <utility>

#include "http/habits.h"
#include "http/tags.h"
#include "platform/file_region.h"

namespace vel {

void PlainBody::describe(ResponseHeadBuilder* head) {
  head->setContentLength(response_.contentLength());
}

BodyPiece PlainBody::read() {
  BodyPiece piece{response_.readDataOfLength(writer_.largestPiece())};
  piece.is_last = !piece.data.isEmpty() && response_.isFinished();
  return piece;
}

Progress PlainBody::send(BodyPiece piece) {
  if (piece.data.isEmpty()) return Progress::kFinished;
  writer_.writeBody(std::move(piece.data), piece.is_last ? kLastTag : kPlainPieceTag);
  return Progress::kUnderWay;
}

Progress PlainBody::didWrite(int64_t tag) {
  return tag == kPlainPieceTag ? send(read()) : Progress::kUnderWay;
}

void ChunkedBody::describe(ResponseHeadBuilder* head) {
  head->setOwnField("Transfer-Encoding", chunkedCodingName());
}

BodyPiece ChunkedBody::readFirst() { return {read()}; }

// The size of a chunk is told before its bytes: a file must not become shorter in between.
VELData ChunkedBody::read() {
  return FileRegion::inMemory(response_.readDataOfLength(writer_.largestPiece()));
}

Progress ChunkedBody::send(VELData piece) {
  if (piece.isEmpty()) return Progress::kFinished;
  const bool is_last = response_.isFinished();
  writer_.writeFrame(ChunkSizeLine(piece.length()).view(), kSizeLineTag);
  writer_.writeBody(std::move(piece), kChunkTag);
  if (is_last) {
    writer_.writeFrame(VELData::dataWithStaticBytes(chunkedFooter()), kLastTag);
  } else {
    writer_.writeFrame(VELSocket::CRLFData(), kChunkCloseTag);
  }
  return Progress::kUnderWay;
}

Progress ChunkedBody::didWrite(int64_t tag) {
  if (tag != kChunkCloseTag) return Progress::kUnderWay;
  return send(read());
}

ChunkSizeLine::ChunkSizeLine(uint64_t length) noexcept {
  char* end = std::to_chars(text_, text_ + kLongest - 2, length, 16).ptr;
  *end++ = '\r';
  *end++ = '\n';
  length_ = static_cast<size_t>(end - text_);
}

std::string_view chunkedFooter() noexcept { return "\r\n0\r\n\r\n"; }

}  // namespace vel
