#include "http/answer_writer.h"

#include <array>
#include <chrono>
#include <utility>

namespace vel {

namespace {

constexpr std::chrono::milliseconds kNoTimeout{-1};

}  // namespace

void AnswerWriter::writeHead(const ResponseHeadBuilder& head, int64_t tag) {
  const size_t size = head.size();
  std::array<char, kSmallAnswer> buffer;
  if (size <= buffer.size()) {
    head.writeTo(buffer.data());
    writeFrame({buffer.data(), size}, tag);
  } else {
    writeFrame(head.data(), tag);
  }
}

void AnswerWriter::writeFrame(VELData data, int64_t tag) {
  sent_.all += data.length();
  socket_.writeData(std::move(data), limits_.headWriteTimeout, tag);
}

void AnswerWriter::writeBody(VELData piece, int64_t tag) {
  sent_.all += piece.length();
  sent_.body += piece.length();
  socket_.writeData(std::move(piece), kNoTimeout, tag);
}

}  // namespace vel
