// ScriptedResponse: a response whose pieces the test chooses, and that notes what it was asked.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "corvane/response.h"

namespace vel::test {

class ScriptedResponse : public VELResponse {
 public:
  /// Hands out `pieces`; it is finished after the last one, or never.
  explicit ScriptedResponse(std::deque<std::string> pieces, bool finishes = true)
      : finishes_(finishes), pieces_(std::move(pieces)) {
    setStatus(200);
    for (const std::string& piece : pieces_) setContentLength(contentLength() + piece.size());
  }

  VELData readDataOfLength(uint64_t length) override {
    asked_for.push_back(length);
    if (pieces_.empty()) return VELData();
    VELData piece(std::move(pieces_.front()));
    pieces_.pop_front();
    return piece;
  }
  bool isFinished() const override { return finishes_ && pieces_.empty(); }
  void connectionDidClose() override { ++closings; }

  std::vector<uint64_t> asked_for;
  int closings = 0;

 private:
  const bool finishes_;
  std::deque<std::string> pieces_;
};

}  // namespace vel::test
