// A wire within the process, to a server whose loop the test drives.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/memory_pipe.h"
#include "support/manual_loops.h"
#include "support/wire.h"

namespace vel::test {

class MemoryWire : public Wire {
 public:
  /// Sends in pieces of `piece` bytes, each of which the server handles before the next one comes; beyond
  /// some thousand bytes the rest goes at once. 0 leaves the bytes whole.
  MemoryWire(std::unique_ptr<MemoryEnd> end, std::shared_ptr<ManualLoops> loops, size_t piece = 0)
      : end_(std::move(end)), loops_(std::move(loops)), piece_(piece) {}

  bool send(std::string_view bytes) override;
  bool receive(std::string& received) override;
  void finishSending() override;
  void reset() override;

  /// Appends what has come already; false at the end.
  bool take(std::string& received);

 private:
  bool sendPiece(std::string_view bytes);

  const std::unique_ptr<MemoryEnd> end_;
  const std::shared_ptr<ManualLoops> loops_;
  const size_t piece_;
};

}  // namespace vel::test
