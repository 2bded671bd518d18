// The numbers that a connection's reads and writes carry; a completion brings its number back and
// so says what comes next.
#pragma once

#include <cstdint>

namespace vel {

// Reads.
inline constexpr int64_t kHeadLineTag = 10;
inline constexpr int64_t kBodyPieceTag = 11;
inline constexpr int64_t kChunkSizeLineTag = 12;
inline constexpr int64_t kChunkDataTag = 13;
inline constexpr int64_t kChunkEndTag = 14;
inline constexpr int64_t kTrailerLineTag = 15;
/// What is read only to notice the end of a client that nobody is going to answer.
inline constexpr int64_t kUnwantedTag = 16;
/// The first byte behind an answer that never ends.
inline constexpr int64_t kNextRequestTag = 17;

// Writes.
/// The head of an answer with a body, or of a part of it. Nothing follows from its completion.
inline constexpr int64_t kHeadTag = 21;
/// A plain piece that is not the last: the next one follows.
inline constexpr int64_t kPlainPieceTag = 22;
/// A chunk-size line. Nothing follows.
inline constexpr int64_t kSizeLineTag = 30;
/// The data of a chunk. Nothing follows.
inline constexpr int64_t kChunkTag = 31;
/// The CR LF of a chunk that is not the last: the next one follows.
inline constexpr int64_t kChunkCloseTag = 32;
/// A piece of a single range that is not the last: the next one follows.
inline constexpr int64_t kRangePieceTag = 40;
/// A piece of one of several ranges: the next one follows, the next part, or the closing delimiter.
inline constexpr int64_t kPartPieceTag = 50;
/// The last write of an answer: what comes next is decided.
inline constexpr int64_t kLastTag = 90;
/// The last write of an answer after which the connection closes.
inline constexpr int64_t kLastAndCloseTag = 91;

}  // namespace vel
