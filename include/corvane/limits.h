// The numbers and the profile that decide how a connection treats its peer.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// Which behaviour a configuration asks for.
enum class VELProfile {
  /// The library's own habits, exactly as documented.
  kClassic,
  /// The habits of current standards wherever they differ.
  kStandard,
};

/// Limits of one connection. Times that are negative mean no time-out; sizes are bytes.
struct VELLimits {
  /// One line of a head or trailer, CR LF included; a longer one disconnects.
  size_t headLineLength = 8190;
  /// Lines of a head and its trailer together, request line included; one more disconnects.
  uint64_t headLines = 100;
  /// One chunk-size line, CR LF included; a longer one disconnects.
  size_t chunkSizeLineLength = 200;
  /// How long each head line may take; then the connection is closed without an answer.
  std::chrono::milliseconds headLineTimeout{30'000};
  /// How long each write of a head may take.
  std::chrono::milliseconds headWriteTimeout{30'000};
  /// Bodies up to this size stay in memory; larger ones go to a file.
  uint64_t bodyInMemory = 5'242'880;
  /// The largest piece of a body that is read or written at once, and the most that is outstanding.
  size_t bodyPiece = 524'288;
};
