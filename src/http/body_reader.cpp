#include "http/body_reader.h"

#include <algorithm>
#include <optional>

#include "http/habits.h"

namespace vel {

BodyStep LengthBodyReader::next() const noexcept {
  if (remaining_ == 0) return {BodyStep::Kind::kComplete};
  const auto length = static_cast<size_t>(std::min<uint64_t>(remaining_, piece_));
  return {BodyStep::Kind::kReadBytes, kBodyPieceTag, length};
}

BodyStep LengthBodyReader::didRead(std::string_view bytes) noexcept {
  remaining_ -= std::min<uint64_t>(remaining_, bytes.size());
  return next();
}

BodyStep ChunkedBodyReader::readSizeLine() const noexcept {
  return {BodyStep::Kind::kReadLine, kChunkSizeLineTag, limits_->chunkSizeLineLength};
}

BodyStep ChunkedBodyReader::readData() const noexcept {
  const auto length = static_cast<size_t>(std::min<uint64_t>(remaining_, limits_->bodyPiece));
  return {BodyStep::Kind::kReadBytes, kChunkDataTag, length};
}

BodyStep ChunkedBodyReader::readTrailerLine() const noexcept {
  return {BodyStep::Kind::kReadLine, kTrailerLineTag, limits_->headLineLength};
}

BodyStep ChunkedBodyReader::didRead(std::string_view bytes) noexcept {
  switch (state_) {
    case State::kSizeLine:
      return sizeLineDidCome(bytes);
    case State::kData:
      return dataDidCome(bytes);
    case State::kDataEnd:
      if (bytes != "\r\n") return {BodyStep::Kind::kBadChunk};
      state_ = State::kSizeLine;
      return readSizeLine();
    case State::kTrailer:
      break;
  }
  return trailerLineDidCome(bytes);
}

BodyStep ChunkedBodyReader::sizeLineDidCome(std::string_view line) noexcept {
  const std::optional<uint64_t> size = admittedChunkSize(line);
  if (!size) return {BodyStep::Kind::kBadSize};
  remaining_ = *size;
  state_ = remaining_ > 0 ? State::kData : State::kTrailer;
  return state_ == State::kData ? readData() : readTrailerLine();
}

BodyStep ChunkedBodyReader::dataDidCome(std::string_view bytes) noexcept {
  remaining_ -= std::min<uint64_t>(remaining_, bytes.size());
  if (remaining_ > 0) return readData();
  state_ = State::kDataEnd;
  return {BodyStep::Kind::kReadBytes, kChunkEndTag, 2};
}

BodyStep ChunkedBodyReader::trailerLineDidCome(std::string_view line) noexcept {
  ++lines_;
  if (!admitsLines(lines_, *limits_)) return {BodyStep::Kind::kTooLong};
  return endsTrailer(line) ? BodyStep{BodyStep::Kind::kComplete} : readTrailerLine();
}

}  // namespace vel
