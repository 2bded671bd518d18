// DigitsResponse: a body whose every byte tells its place: 0123456789012...
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "corvane/response.h"

namespace vel::test {

/// The digits from `first` on.
inline std::string digits(uint64_t first, uint64_t length) {
  std::string text;
  for (uint64_t i = first; i < first + length; ++i) text += static_cast<char>('0' + i % 10);
  return text;
}

/// Reads from its offset on, as a file does; if `moves_offset`, it says how far it has come.
class DigitsResponse : public VELResponse {
 public:
  explicit DigitsResponse(uint64_t length, bool moves_offset = false)
      : moves_offset_(moves_offset) {
    setStatus(200);
    setContentLength(length);
  }

  void setOffset(uint64_t offset) override {
    VELResponse::setOffset(offset);
    position_ = offset;
  }
  VELData readDataOfLength(uint64_t length) override {
    asked_for.push_back(length);
    const uint64_t taken = std::min(length, contentLength() - position_);
    VELData piece(digits(position_, taken));
    position_ += taken;
    if (moves_offset_) VELResponse::setOffset(position_);
    return piece;
  }
  bool isFinished() const override { return position_ == contentLength(); }

  std::vector<uint64_t> asked_for;

 private:
  const bool moves_offset_;
  uint64_t position_ = 0;
};

}  // namespace vel::test
