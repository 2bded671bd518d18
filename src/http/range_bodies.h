// The loops of answers in part: one range, and several in a multipart body (RFC 9110 §15.3.7).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "corvane/range.h"
#include "http/body_loop.h"
#include "http/range_head.h"

namespace vel {

/// The loop for `ranges`, of which there is at least one.
std::unique_ptr<BodyLoop> makeRangeLoop(AnswerWriter& writer, VELResponse& response,
                                        std::vector<VELRange> ranges);

/// | written     | bytes missing | then                                                         |
/// | ----------- | ------------- | ------------------------------------------------------------ |
/// | range piece | none          | the answer has ended                                         |
/// | range piece | some          | the next piece is read and sent; without data it is stranded |
///
/// A first read without data ends the answer.
class SingleRangeBody final : public BodyLoop {
 public:
  SingleRangeBody(AnswerWriter& writer, VELResponse& response, VELRange range);

  void describe(ResponseHeadBuilder* head) override;
  BodyPiece readFirst() override;
  Progress sendFirst(BodyPiece piece) override;
  Progress didWrite(int64_t tag) override;

 private:
  BodyPiece read(uint64_t missing);
  void write(BodyPiece piece);

  const VELRange range_;
  const std::string content_range_;
};

/// | written         | bytes missing | then                                                         |
/// | --------------- | ------------- | ------------------------------------------------------------ |
/// | part header     |               | nothing: the first piece was written behind it               |
/// | piece of a part | some          | the next piece is read and sent; without data it is stranded |
/// | piece of a part | none          | the next part begins, or the closing delimiter is written    |
///
/// A first read without data ends the answer after the first part header; one of a later part leaves it
/// stranded.
class MultiRangeBody final : public BodyLoop {
 public:
  MultiRangeBody(AnswerWriter& writer, VELResponse& response, std::vector<VELRange> ranges);

  void describe(ResponseHeadBuilder* head) override;
  BodyPiece readFirst() override;
  Progress sendFirst(BodyPiece piece) override;
  Progress didWrite(int64_t tag) override;

 private:
  VELData beginPart();
  VELData read(uint64_t missing);
  void writePartHeader();
  Progress send(VELData piece);

  const std::vector<VELRange> ranges_;
  const MultipartFraming framing_;
  const std::string content_type_;
  // The part that is being sent.
  size_t index_ = 0;
  // The part was read whole, and the response does not tell so.
  bool is_stuck_ = false;
};

}  // namespace vel
