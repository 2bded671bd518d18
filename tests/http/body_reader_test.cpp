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

TEST(ChunkedBodyReader, TakesWhatCountsAsASize) {
  const VELLimits limits;
  struct Case {
    std::string line;
    Kind kind;
    size_t length;
  };
  const size_t piece = limits.bodyPiece;
  for (const Case& c : std::vector<Case>{
           {"5\r\n", Kind::kReadBytes, 5},
           {"1a;name=value\r\n", Kind::kReadBytes, 26},
           {"0x10\r\n", Kind::kReadBytes, 16},
           {" +A rest\r\n", Kind::kReadBytes, 10},
           {"ffffffffffffffff\r\n", Kind::kReadBytes, piece},
           {"10000000000000000\r\n", Kind::kBadSize, 0},
           {"zz\r\n", Kind::kBadSize, 0},
           {"\r\n", Kind::kBadSize, 0},
           {";5\r\n", Kind::kBadSize, 0},
           {"5;\xFF\r\n", Kind::kBadSize, 0},
           {"0\r\n", Kind::kReadLine, limits.headLineLength},
           {"000;last\r\n", Kind::kReadLine, limits.headLineLength},
       }) {
    ChunkedBodyReader reader(1, limits);
    const BodyStep step = reader.didRead(c.line);
    EXPECT_EQ(step.kind, c.kind) << c.line;
    EXPECT_EQ(step.length, c.length) << c.line;
  }
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

TEST(ChunkedBodyReader, RefusesChunkThatDoesNotEndWhereItSaid) {
  const VELLimits limits;
  ChunkedBodyReader reader(1, limits);
  reader.didRead("3\r\n");
  reader.didRead("abc");
  EXPECT_EQ(reader.didRead("d\r").kind, Kind::kBadChunk);
}

TEST(ChunkedBodyReader, SharesItsLineLimitWithTheHead) {
  const VELLimits limits;
  for (const int fields : {9, 10}) {
    ChunkedBodyReader reader(90, limits);
    reader.didRead("0\r\n");
    BodyStep step{};
    for (int i = 0; i < fields; ++i) step = reader.didRead("A: b\r\n");
    EXPECT_EQ(step.kind, Kind::kReadLine);
    EXPECT_EQ(reader.didRead("\r\n").kind, fields == 9 ? Kind::kComplete : Kind::kTooLong);
  }
}

}  // namespace
}  // namespace vel
