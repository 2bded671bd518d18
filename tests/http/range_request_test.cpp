// Ranges: what "Range" fields ask for, the arithmetic of ranges, their boxes and heads.
#include "http/range_request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "corvane/error.h"
#include "http/range_head.h"

namespace vel {
namespace {

using Ranges = std::vector<VELRange>;

constexpr uint64_t kMost = UINT64_MAX;

TEST(RangeRequest, AsksForWhatIsThere) {
  struct Case {
    const char* field;
    uint64_t length;
    Ranges ranges;
  };
  for (const Case& c : std::vector<Case>{
           {"bytes=0-0", 10, {{0, 1}}},
           {"bytes=0-9", 10, {{0, 10}}},
           {"bytes=2-", 10, {{2, 8}}},
           {"bytes=-3", 10, {{7, 3}}},
           {"bytes=-10", 10, {{0, 10}}},
           {"bytes=-0", 10, {{10, 0}}},
           {"bytes=-0", 0, {{0, 0}}},
           {"bytes=5", 10, {{5, 1}}},
           {"\t BYTES =  0-4 \t", 10, {{0, 5}}},
           {"bytes=\t5 x , +6-7y,", 10, {}},
           {"bytes=\t5 x , +6-7y", 10, {{5, 1}, {6, 2}}},
           {"bytes=20-29,0-9", 100, {{0, 10}, {20, 10}}},
           {"bytes=0-9,10-19", 100, {{0, 10}, {10, 10}}},
           {"bytes=-0,9,-0,0-8", 10, {{0, 9}, {9, 1}, {10, 0}, {10, 0}}},
           // What is no number counts as missing, one that does not fit too.
           {"bytes=4-x", 10, {{4, 6}}},
           {"bytes=x-4", 10, {{6, 4}}},
           {"bytes=4-18446744073709551616", 10, {{4, 6}}},
           {"bytes=18446744073709551616-4", 10, {{6, 4}}},
           {"bytes=bytes=-4", 10, {{6, 4}}},
           // A second hyphen is a sign.
           {"bytes=4--18446744073709551610", 10, {{4, 3}}},
           {"bytes=--18446744073709551610", 10, {{4, 6}}},
           {"bytes=4--5", 10, {}},
           {"bytes=0-18446744073709551614", kMost, {{0, kMost}}},
           {"bytes=18446744073709551614", kMost, {{kMost - 1, 1}}},
           {"bytes=-18446744073709551615", kMost, {{0, kMost}}},
       }) {
    EXPECT_EQ(requestedRanges(c.field, c.length), c.ranges) << c.field;
  }
}

TEST(RangeRequest, CountsForNothingWhenAnyPartIsWrong) {
  for (const char* field :
       {"", "bytes", "=", "bytes=", "=0-4", "items=0-4", "byte s=0-4", "bytes 0-4", "bytes=-",
        "bytes=x", "bytes=,", "bytes=0-1,", "bytes=,0-1", "bytes=0-1,,3", "bytes=0-1;3-4,x",
        // Beyond the end, by one and by far.
        "bytes=10", "bytes=10-", "bytes=0-10", "bytes=-11", "bytes=10-10", "bytes=0-1,10-",
        "bytes=0-18446744073709551615", "bytes=18446744073709551616", "bytes=5-4", "bytes=--1",
        // Overlaps, in any order.
        "bytes=0-5,5-9", "bytes=5-9,0-5", "bytes=1,1", "bytes=0-9,3", "bytes=0-,-1",
        "bytes=0-1,4-8,2-3,6"}) {
    EXPECT_EQ(requestedRanges(field, 10), Ranges()) << field;
  }
  EXPECT_EQ(requestedRanges("bytes=0-", 0), Ranges());
}

// Comparing every pair would take a minute.
TEST(RangeRequest, TakesAnyNumberOfRangesInNoTime) {
  constexpr uint64_t kCount = 200'000;
  std::string field = "bytes=";
  for (uint64_t i = kCount; i-- > 0;) {
    field += std::to_string(10 * i) + '-' + std::to_string(10 * i + 8) + ',';
  }
  const auto began = std::chrono::steady_clock::now();
  const Ranges ranges = requestedRanges(field + "9", 10 * kCount);
  EXPECT_EQ(requestedRanges(field + "8", 10 * kCount), Ranges());
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(10));
  ASSERT_EQ(ranges.size(), kCount + 1);
  EXPECT_EQ(ranges[1], (VELRange{9, 1}));
  EXPECT_EQ(ranges.back(), (VELRange{10 * kCount - 10, 9}));
}

TEST(Range, IsUnitedIntersectedAndCompared) {
  struct Case {
    VELRange a, b, united, shared;
    int order;
  };
  for (const Case& c : std::vector<Case>{
           {{0, 10}, {10, 5}, {0, 15}, {10, 0}, -1},
           {{0, 10}, {11, 5}, {0, 16}, {0, 0}, -1},
           {{0, 10}, {20, 5}, {0, 25}, {0, 0}, -1},
           {{0, 10}, {3, 4}, {0, 10}, {3, 4}, -1},
           {{5, 10}, {5, 4}, {5, 10}, {5, 4}, 1},
           {{5, 4}, {5, 4}, {5, 4}, {5, 4}, 0},
           // The end of the first wraps to 1.
           {{kMost, 2}, {0, 5}, {0, 5}, {0, 0}, 1},
           {{kMost, 2}, {1, 5}, {1, 5}, {0, 0}, 1},
           {{3, kMost}, {2, 1}, {2, 1}, {3, kMost}, 1},
       }) {
    EXPECT_EQ(VELRangeUnion(c.a, c.b), c.united);
    EXPECT_EQ(VELRangeUnion(c.b, c.a), c.united);
    EXPECT_EQ(VELRangeIntersection(c.a, c.b), c.shared);
    EXPECT_EQ(VELRangeIntersection(c.b, c.a), c.shared);
    EXPECT_EQ(VELRangeCompare(c.a, c.b), c.order);
    EXPECT_EQ(VELRangeCompare(c.b, c.a), -c.order);
  }
}

TEST(Value, GivesBackARangeOnlyIfItHoldsOne) {
  const VELValue box = VELValue::valueWithVELRange({3, kMost});
  EXPECT_EQ(box.typeTag(), "{VELRange=QQ}");
  EXPECT_EQ(box.VELRangeValue(), (VELRange{3, kMost}));
  EXPECT_EQ(VELValue("{VELRange=QQ}", 3, kMost), box);
  for (const char* tag : {"", "{VELRange=QQ", "{VELRange=QQ} ", "{VELrange=QQ}", "{Point=QQ}"}) {
    EXPECT_THAT([tag] { (void)VELValue(tag, 1, 2).VELRangeValue(); },
                testing::ThrowsMessage<VELException>(
                    "NSInvalidArgumentException: Value does not contain a VELRange struct"));
  }
}

TEST(RangeHead, CountsTheLastPositionModulo64Bits) {
  EXPECT_EQ(contentRange({0, 100}, 1000), "bytes 0-99/1000");
  EXPECT_EQ(contentRange({10, 0}, 10), "bytes 10-9/10");
  EXPECT_EQ(contentRange({0, 0}, 0), "bytes 0-18446744073709551615/0");
}

}  // namespace
}  // namespace vel
