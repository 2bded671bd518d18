#include "http/body_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vel {
namespace {

using Kind = BodyStep::Kind;

TEST(LengthBodyReader, AsksForPiecesUpToTheLimitUntilAllHasCome) {
  LengthBodyReader reader(25, 10);
  EXPECT_EQ(reader.begin().length, 10U);
  EXPECT_EQ(reader.didRead("0123456789").length, 10U);
  const BodyStep last = reader.didRead("0123456789");
  EXPECT_EQ(last.kind, Kind::kReadBytes);
  EXPECT_EQ(last.length, 5U);
  EXPECT_EQ(reader.didRead("01234").kind, Kind::kComplete);
}

TEST(ChunkedBodyReader, ReadsTheLargestChunkInPieces) {
  const VELLimits limits;
  ChunkedBodyReader reader(1, limits);
  const BodyStep step = reader.didRead("ffffffffffffffff\r\n");
  EXPECT_EQ(step.kind, Kind::kReadBytes);
  EXPECT_EQ(step.length, limits.bodyPiece);
}

TEST(ChunkedBodyReader, GoesThroughItsStates) {
  VELLimits limits;
  limits.bodyPiece = 4;
  ChunkedBodyReader reader(1, limits);
  EXPECT_EQ(reader.begin().tag, kChunkSizeLineTag);
  EXPECT_EQ(reader.begin().length, limits.chunkSizeLineLength);
  struct Turn {
    std::string bytes;
    int64_t tag;
    size_t length;
  };
  for (const Turn& turn : std::vector<Turn>{{"6\r\n", kChunkDataTag, 4},
                                            {"abcd", kChunkDataTag, 2},
                                            {"ef", kChunkEndTag, 2},
                                            {"\r\n", kChunkSizeLineTag, 200},
                                            {"1\r\n", kChunkDataTag, 1},
                                            {"g", kChunkEndTag, 2},
                                            {"\r\n", kChunkSizeLineTag, 200},
                                            {"0\r\n", kTrailerLineTag, 8190},
                                            {"A: b\r\n", kTrailerLineTag, 8190}}) {
    const BodyStep step = reader.didRead(turn.bytes);
    EXPECT_EQ(step.tag, turn.tag) << turn.bytes;
    EXPECT_EQ(step.length, turn.length) << turn.bytes;
  }
  EXPECT_EQ(reader.didRead("\r\n").kind, Kind::kComplete);
}

}  // namespace
}  // namespace vel
