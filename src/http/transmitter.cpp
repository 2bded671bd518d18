#include "http/transmitter.h"

#include <array>
#include <cstring>
#include <utility>
#include <vector>

#include "http/habits.h"
#include "http/range_bodies.h"
#include "http/range_request.h"
#include "http/tags.h"
#include "platform/file_region.h"
#include "platform/http_date.h"

namespace vel {

void completeHead(std::span<const VELHeaderField> fields, ResponseHeadBuilder* head) {
  head->setOwnField("Date", httpDateNow());
  head->setOwnField("Accept-Ranges", "bytes");
  head->setFields(fields);
}

Transmitter::Transmitter(VELSocket& socket, VELResponse& response, const VELLimits& limits,
                         SentBytes& sent, std::optional<std::string_view> range)
    : writer_(socket, limits, sent),
      response_(response),
      status_(response.status()),
      loops_(std::in_place_type<PlainBody>, writer_, response),
      loop_(std::get_if<PlainBody>(&loops_)) {
  if (response.isChunked()) {
    loop_ = &loops_.emplace<ChunkedBody>(writer_, response);
  } else if (range) {
    chooseRangeLoop(*range);
  }
}

void Transmitter::chooseRangeLoop(std::string_view range) {
  std::vector<VELRange> ranges = requestedRanges(range, response_.contentLength());
  if (ranges.empty()) {
    status_ = statusWithoutRanges(status_);
    return;
  }
  is_in_part_ = true;
  status_ = partialStatus(status_);
  loop_ =
      loops_
          .emplace<std::unique_ptr<BodyLoop>>(makeRangeLoop(writer_, response_, std::move(ranges)))
          .get();
}

Progress Transmitter::begin(bool headOnly) {
  std::optional<std::string_view> description;
  if (!is_in_part_) description = response_.statusDescription();
  ResponseHeadBuilder head(status_, description);
  loop_->describe(&head);
  completeHead(response_.headerFields(), &head);
  if (headOnly || (response_.contentLength() == 0 && !response_.isChunked())) {
    writer_.writeHead(head, kLastTag);
    return Progress::kUnderWay;
  }
  if (head.size() > kSmallAnswer) {
    writer_.writeHead(head, kHeadTag);
    return loop_->sendFirst(loop_->readFirst());
  }
  return sendWithFirstPiece(head);
}

// Most answers are small: one write carries them whole. The head is put down first: what it is made of may
// change while the response is read.
Progress Transmitter::sendWithFirstPiece(const ResponseHeadBuilder& head) {
  std::array<char, kSmallAnswer> buffer;
  const char* const end = head.writeTo(buffer.data());
  const auto length = static_cast<size_t>(end - buffer.data());
  BodyPiece piece = loop_->readFirst();
  const bool is_in_memory = FileRegion::of(piece.data) == nullptr;
  if (piece.is_last && is_in_memory && piece.data.length() <= buffer.size() - length) {
    const size_t bodyLength = piece.data.length();
    std::memcpy(buffer.data() + length, piece.data.bytes(), bodyLength);
    writer_.writeHeadWithBody({buffer.data(), length + bodyLength}, bodyLength, kLastTag);
    return Progress::kUnderWay;
  }
  writer_.writeFrame({buffer.data(), length}, kHeadTag);
  return loop_->sendFirst(std::move(piece));
}

}  // namespace vel
