#include "http/request_body.h"

namespace vel {

RequestBody::RequestBody(const BodyFraming& framing, uint64_t headLines, const VELUUID& identifier,
                         const VELLimits& limits)
    : reader_(LengthBodyReader(framing.length, limits.bodyPiece)),
      store_(identifier, limits.bodyInMemory) {
  if (framing.kind == BodyFraming::Kind::kChunked) {
    reader_.emplace<ChunkedBodyReader>(headLines, limits);
  }
  store_.prepare(framing.length);
}

BodyStep RequestBody::begin() const {
  return std::visit([](const auto& reader) { return reader.begin(); }, reader_);
}

BodyStep RequestBody::didRead(std::string_view bytes, int64_t tag) {
  if (tag == kBodyPieceTag || tag == kChunkDataTag) store_.append(bytes);
  const BodyStep step =
      std::visit([bytes](auto& reader) { return reader.didRead(bytes); }, reader_);
  if (step.kind == BodyStep::Kind::kComplete) store_.finish();
  return step;
}

}  // namespace vel
