#include "http/transmitter.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstring>
#include <string>
#include <utility>

#include "http/habits.h"
#include "http/tags.h"
#include "platform/http_date.h"

namespace vel {

namespace {

// A slow reader is never cut off in the middle of a body.
constexpr std::chrono::milliseconds kNoTimeout{-1};
// What is put together on the stack.
constexpr size_t kSmallAnswer = 1024;

}  // namespace

void completeHead(std::span<const VELHeaderField> fields, ResponseHeadBuilder* head) {
  head->setOwnField("Date", httpDateNow());
  head->setOwnField("Accept-Ranges", "bytes");
  head->setFields(fields);
}

void writeHead(const ResponseHeadBuilder& head, int64_t tag, const VELLimits& limits,
               VELSocket* socket, SentBytes* sent) {
  const size_t size = head.size();
  sent->all += size;
  std::array<char, kSmallAnswer> buffer;
  if (size <= buffer.size()) {
    head.writeTo(buffer.data());
    socket->writeData(VELData::dataWithBorrowedBytes(buffer.data(), size), limits.headWriteTimeout,
                      tag);
  } else {
    socket->writeData(head.data(), limits.headWriteTimeout, tag);
  }
}

ChunkSizeLine::ChunkSizeLine(uint64_t length) noexcept {
  char* end = std::to_chars(text_, text_ + kLongest - 2, length, 16).ptr;
  *end++ = '\r';
  *end++ = '\n';
  length_ = static_cast<size_t>(end - text_);
}

std::string_view chunkedFooter() noexcept { return "\r\n0\r\n\r\n"; }

Transmitter::Strategy Transmitter::chooseStrategy() const {
  return response_.isChunked() ? Strategy::kChunked : Strategy::kPlain;
}

Transmitter::Progress Transmitter::begin(bool headOnly) {
  strategy_ = chooseStrategy();
  const bool isChunked = strategy_ == Strategy::kChunked;
  const uint64_t length = isChunked ? 0 : response_.contentLength();
  ResponseHeadBuilder head(response_.status(), response_.statusDescription());
  if (isChunked) {
    head.setOwnField("Transfer-Encoding", chunkedCodingName());
  } else {
    head.setContentLength(length);
  }
  completeHead(response_.headerFields(), &head);
  if (headOnly || (length == 0 && !isChunked)) {
    writeHead(head, kLastTag, limits_, &socket_, &sent_);
    return Progress::kUnderWay;
  }
  if (head.size() > kSmallAnswer) {
    writeHead(head, kHeadTag, limits_, &socket_, &sent_);
    return sendNextPiece();
  }
  return sendWithFirstPiece(head);
}

// Most answers are small: one write carries them whole. The head is put down first: what it is made of may
// change while the response is read.
Transmitter::Progress Transmitter::sendWithFirstPiece(const ResponseHeadBuilder& head) {
  std::array<char, kSmallAnswer> buffer;
  const char* const head_end = head.writeTo(buffer.data());
  auto length = static_cast<size_t>(head_end - buffer.data());
  VELData piece = response_.readDataOfLength(limits_.bodyPiece);
  const bool is_last = !piece.isEmpty() && response_.isFinished();
  const bool is_whole =
      is_last && strategy_ == Strategy::kPlain && piece.length() <= buffer.size() - length;
  if (is_whole) {
    std::memcpy(buffer.data() + length, piece.bytes(), piece.length());
    length += piece.length();
    sent_.body += piece.length();
  }
  sent_.all += length;
  socket_.writeData(VELData::dataWithBorrowedBytes(buffer.data(), length), limits_.headWriteTimeout,
                    is_whole ? kLastTag : kHeadTag);
  return is_whole ? Progress::kUnderWay : sendPiece(std::move(piece), is_last);
}

Transmitter::Progress Transmitter::didWrite(int64_t tag) {
  switch (tag) {
    case kPlainPieceTag:
      in_flight_ = 0;
      return sendNextPiece();
    case kChunkTag:
      in_flight_ = 0;
      return Progress::kUnderWay;
    case kChunkCloseTag:
      return sendNextPiece();
    default:
      return Progress::kUnderWay;
  }
}

Transmitter::Progress Transmitter::sendNextPiece() {
  if (in_flight_ >= limits_.bodyPiece) return Progress::kUnderWay;
  VELData piece = response_.readDataOfLength(limits_.bodyPiece - in_flight_);
  const bool is_last = !piece.isEmpty() && response_.isFinished();
  return sendPiece(std::move(piece), is_last);
}

Transmitter::Progress Transmitter::sendPiece(VELData piece, bool is_last) {
  if (piece.isEmpty()) return bodyRanDry();
  in_flight_ += piece.length();
  if (strategy_ == Strategy::kChunked) {
    sendChunk(std::move(piece), is_last);
  } else {
    writeBody(std::move(piece), is_last ? kLastTag : kPlainPieceTag);
  }
  return Progress::kUnderWay;
}

// A read without data ends the answer, whatever was announced: a plain body stays short, and a body
// in chunks is left without its footer. The client is told only by the end of the connection, if it
// ends.
Transmitter::Progress Transmitter::bodyRanDry() const { return Progress::kFinished; }

void Transmitter::sendChunk(VELData piece, bool is_last) {
  const ChunkSizeLine sizeLine(piece.length());
  writeControl(VELData::dataWithBorrowedBytes(sizeLine.view().data(), sizeLine.view().size()),
               kSizeLineTag);
  writeBody(std::move(piece), kChunkTag);
  if (is_last) {
    writeControl(VELData::dataWithStaticBytes(chunkedFooter()), kLastTag);
  } else {
    writeControl(VELSocket::CRLFData(), kChunkCloseTag);
  }
}

void Transmitter::writeControl(VELData data, int64_t tag) {
  sent_.all += data.length();
  socket_.writeData(std::move(data), limits_.headWriteTimeout, tag);
}

void Transmitter::writeBody(VELData piece, int64_t tag) {
  sent_.all += piece.length();
  sent_.body += piece.length();
  socket_.writeData(std::move(piece), kNoTimeout, tag);
}

}  // namespace vel
