// Cutting an input into pieces, always the same for the same input: the corpus stays plain bytes that
// people can read.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vel::fuzz {

/// Calls `take` with one piece of `bytes` after the other. How they are cut follows from `bytes` and
/// `turn`; turn 0 is byte by byte.
template <typename Take>
void forEachPiece(std::string_view bytes, unsigned turn, Take take) {
  uint64_t state = 0xCBF29CE484222325 + turn;
  for (const char c : bytes) state = (state ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  while (!bytes.empty()) {
    state = state * 6364136223846793005 + 1442695040888963407;
    // Short pieces are frequent: ends of lines are where things go wrong.
    const uint64_t most = (state >> 40) % 3 == 0 ? bytes.size() : 4;
    const size_t size = turn == 0 ? 1 : static_cast<size_t>(1 + (state >> 33) % most);
    const std::string_view piece = bytes.substr(0, size);
    take(piece);
    bytes.remove_prefix(piece.size());
  }
}

}  // namespace vel::fuzz
