#include "http/range_bodies.h"

#include <algorithm>
#include <utility>

#include "http/habits.h"
#include "http/tags.h"

namespace vel {

std::unique_ptr<BodyLoop> makeRangeLoop(AnswerWriter& writer, VELResponse& response,
                                        std::vector<VELRange> ranges) {
  if (ranges.size() == 1) {
    return std::make_unique<SingleRangeBody>(writer, response, ranges.front());
  }
  return std::make_unique<MultiRangeBody>(writer, response, std::move(ranges));
}

SingleRangeBody::SingleRangeBody(AnswerWriter& writer, VELResponse& response, VELRange range)
    : BodyLoop(writer, response),
      range_(range),
      content_range_(contentRange(range, response.contentLength())) {}

void SingleRangeBody::describe(ResponseHeadBuilder* head) {
  head->setContentLength(range_.length);
  head->setOwnField("Content-Range", content_range_);
}

BodyPiece SingleRangeBody::read(uint64_t missing) {
  BodyPiece piece{response_.readDataOfLength(std::min(missing, writer_.largestPiece()))};
  piece.is_last = !piece.data.isEmpty() && piece.data.length() == missing;
  return piece;
}

void SingleRangeBody::write(BodyPiece piece) {
  writer_.writeBody(std::move(piece.data), piece.is_last ? kLastTag : kRangePieceTag);
}

BodyPiece SingleRangeBody::readFirst() {
  response_.setOffset(range_.location);
  return read(range_.length);
}

Progress SingleRangeBody::sendFirst(BodyPiece piece) {
  if (piece.data.isEmpty()) return Progress::kFinished;
  write(std::move(piece));
  return Progress::kUnderWay;
}

Progress SingleRangeBody::didWrite(int64_t tag) {
  if (tag != kRangePieceTag) return Progress::kUnderWay;
  const uint64_t missing = missingLength(range_, response_.offset());
  if (missing == 0) return Progress::kFinished;
  BodyPiece piece = read(missing);
  if (piece.data.isEmpty()) return Progress::kStranded;
  write(std::move(piece));
  return Progress::kUnderWay;
}

MultiRangeBody::MultiRangeBody(AnswerWriter& writer, VELResponse& response,
                               std::vector<VELRange> ranges)
    : BodyLoop(writer, response),
      ranges_(std::move(ranges)),
      framing_(response.contentLength()),
      content_type_(framing_.contentType()) {}

void MultiRangeBody::describe(ResponseHeadBuilder* head) {
  head->setContentLength(framing_.bodyLength(ranges_));
  head->setOwnField("Content-Type", content_type_);
}

VELData MultiRangeBody::read(uint64_t missing) {
  return response_.readDataOfLength(std::min(missing, writer_.largestPiece()));
}

VELData MultiRangeBody::beginPart() {
  response_.setOffset(ranges_[index_].location);
  return read(ranges_[index_].length);
}

void MultiRangeBody::writePartHeader() {
  writer_.writeFrame(framing_.partHeader(ranges_[index_]), kHeadTag);
}

Progress MultiRangeBody::send(VELData piece) {
  if (piece.isEmpty()) return Progress::kStranded;
  const VELRange& range = ranges_[index_];
  is_stuck_ = piece.length() >= range.length && response_.offset() == range.location;
  writer_.writeBody(std::move(piece), kPartPieceTag);
  return Progress::kUnderWay;
}

BodyPiece MultiRangeBody::readFirst() { return {beginPart()}; }

Progress MultiRangeBody::sendFirst(BodyPiece piece) {
  writePartHeader();
  if (piece.data.isEmpty()) return Progress::kFinished;
  return send(std::move(piece.data));
}

Progress MultiRangeBody::didWrite(int64_t tag) {
  if (tag != kPartPieceTag) return Progress::kUnderWay;
  const uint64_t missing = missingLength(ranges_[index_], response_.offset());
  // A response that keeps its offset after the whole part never gets to the next one, and the size of the
  // pieces does not show: one byte at a time would be a burden on the server.
  if (missing != 0) return send(read(is_stuck_ ? UINT64_MAX : missing));
  if (++index_ == ranges_.size()) {
    writer_.writeFrame(framing_.closingDelimiter(), kLastTag);
    return Progress::kUnderWay;
  }
  writePartHeader();
  return send(beginPart());
}

}  // namespace vel
