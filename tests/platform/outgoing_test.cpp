// Outgoing: nothing lost, nothing reordered, and whose time runs.
#include "platform/outgoing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "platform/file_region.h"

namespace vel::test {
namespace {

using std::chrono::milliseconds;

// Takes up to `most` bytes, as the system would.
std::string take(Outgoing& outgoing, size_t most, int parts = 4) {
  iovec vectors[4];
  RegionRest region;
  const int count = outgoing.vectors(vectors, parts, &region);
  std::string taken;
  for (int i = 0; i < count; ++i) {
    const size_t length = std::min(vectors[i].iov_len, most - taken.size());
    taken.append(static_cast<const char*>(vectors[i].iov_base), length);
  }
  outgoing.didSend(taken.size());
  return taken;
}

TEST(Outgoing, KeepsBytesAndTagsInOrder) {
  std::minstd_rand random(7);
  const size_t sizes[] = {0, 1, 100, Outgoing::kSmall, Outgoing::kSmall + 1, 100'000};
  for (int round = 0; round < 5; ++round) {
    Outgoing outgoing;
    std::string written;
    std::string sent;
    int64_t told = 0;
    int64_t tag = 0;
    while (tag < 100 || !outgoing.isEmpty()) {
      if (tag < 100 && random() % 3 != 0) {
        const std::string bytes(sizes[random() % std::size(sizes)],
                                static_cast<char>('a' + tag % 26));
        if (random() % 2 == 0) {  // a write of which nothing is told
          written += "head" + bytes;
          outgoing.append("head", VELData(bytes), milliseconds(-1));
        }
        written += bytes;
        outgoing.append(VELData(bytes), milliseconds(-1), tag++);
      } else {
        sent += take(outgoing, random() % 120'000);
      }
      if (random() % 4 == 0) outgoing.shrink();
      while (outgoing.hasDone()) EXPECT_EQ(outgoing.takeDone(), told++);
      EXPECT_EQ(outgoing.unsent(), written.size() - sent.size());
    }
    EXPECT_TRUE(sent == written);
    EXPECT_EQ(told, 100);
  }
}

// Small parts of files are gathered with the rest; a large one stands between what is before and behind it.
TEST(Outgoing, SetsLargePartsOfFilesApart) {
  const auto file = std::make_shared<const FileDescriptor>(openForReading("/proc/self/exe"));
  const size_t large = Outgoing::kSmallRegion + 1;
  Outgoing outgoing;
  outgoing.append(VELData(std::string("head")), milliseconds(-1), 1);
  outgoing.append(FileRegion::dataWithRegion(file, 1, 3), milliseconds(-1), 2);
  outgoing.append(FileRegion::dataWithRegion(file, 1, large), milliseconds(-1), 3);
  outgoing.append(VELData(std::string("tail")), milliseconds(-1), 4);
  EXPECT_EQ(outgoing.takeDone(), 1);
  EXPECT_EQ(outgoing.takeDone(), 2);
  EXPECT_EQ(take(outgoing, SIZE_MAX), "headELF");
  iovec vectors[4];
  RegionRest rest;
  outgoing.didSend(large - 1);
  EXPECT_EQ(outgoing.vectors(vectors, 4, &rest), 0);
  EXPECT_EQ(rest.location, large - 1);
  EXPECT_EQ(rest.length, 1U);
  EXPECT_FALSE(outgoing.hasDone());
  outgoing.didSend(1);
  EXPECT_EQ(outgoing.takeDone(), 3);
  EXPECT_EQ(take(outgoing, SIZE_MAX), "tail");
  EXPECT_EQ(outgoing.takeDone(), 4);
  EXPECT_TRUE(outgoing.isEmpty());
  // One that ends too early counts as written all the same.
  outgoing.append(FileRegion::dataWithRegion(file, UINT32_MAX, 10), milliseconds(30), 5);
  EXPECT_EQ(outgoing.takeDone(), 5);
  EXPECT_TRUE(outgoing.isEmpty());
}

TEST(Outgoing, CopiesWhatIsLeft) {
  Outgoing outgoing;
  const std::string large(Outgoing::kSmall + 1, 'b');
  for (const std::string& bytes : {std::string("aaa"), large, std::string("cc")}) {
    outgoing.append(VELData(bytes), milliseconds(-1), 0);
  }
  const std::string all = "aaa" + large + "cc";
  size_t sent = 0;
  for (const int step : {0, 2, 1, 5, 16'000, 1000, 1}) {
    sent += take(outgoing, static_cast<size_t>(step)).size();
    std::string rest = "x";
    outgoing.copyTo(&rest);
    EXPECT_EQ(rest, "x" + all.substr(sent));
  }
}

TEST(Outgoing, CountsSmallPiecesAsWrittenUntilItsBufferIsFull) {
  Outgoing outgoing;
  const VELData piece(std::string(1000, 'x'));
  int64_t done = 0;
  for (int64_t tag = 0; tag < 200; ++tag) outgoing.append(piece, milliseconds(-1), tag);
  for (; outgoing.hasDone(); ++done) outgoing.takeDone();
  EXPECT_EQ(done, static_cast<int64_t>(Outgoing::kGather / 1000));
}

// A peer that takes nothing has no more kept for it than it asked for, however small the pieces.
TEST(Outgoing, JoinsSmallPiecesInLine) {
  constexpr int kPieces = 100'000;
  Outgoing outgoing;
  std::string written(2 * Outgoing::kSmall, 'x');
  outgoing.append("", VELData(written), milliseconds(-1));
  for (int i = 0; i < kPieces; ++i) {
    const std::string piece(1, static_cast<char>('a' + i % 26));
    outgoing.append("-", VELData(piece), milliseconds(i < 2 ? 20 : 30));
    written += "-" + piece;
  }
  EXPECT_EQ(outgoing.unsent(), written.size());
  size_t parts = 0;
  std::string sent;
  for (; !outgoing.isSent(); ++parts) sent += take(outgoing, SIZE_MAX, 1);
  EXPECT_TRUE(sent == written);
  EXPECT_LE(parts, 4 + 2 * kPieces / Outgoing::kSmall);
}

TEST(Outgoing, OwnsWhatItKeeps) {
  Outgoing outgoing;
  std::string lent(2 * Outgoing::kSmall, 'x');
  const VELData borrowed = VELData::dataWithBorrowedBytes(lent.data(), lent.size());
  outgoing.append(borrowed, milliseconds(-1), 1);
  outgoing.append(borrowed.subdata(1, lent.size()), milliseconds(-1), 2);
  std::fill(lent.begin(), lent.end(), 'y');
  EXPECT_EQ(take(outgoing, SIZE_MAX), std::string(2 * lent.size() - 1, 'x'));
}

// The time of a write begins when all before it has left: a slow reader of a body without a time-out
// does not use up the time of what follows.
TEST(Outgoing, TimesTheFirstUnsentWriteOnly) {
  constexpr MonotonicTime kMilli = 1'000'000;
  struct Write {
    size_t length;
    int timeout;
  };
  struct Case {
    const char* name;
    std::vector<Write> writes;
    size_t sent;
    int running;  // the time-out that runs then; none when negative
  };
  const size_t large = Outgoing::kSmall + 1;
  const Case cases[] = {
      {"small", {{10, 30}}, 0, 30},
      {"a part is no end", {{10, 30}}, 9, 30},
      {"all sent", {{10, 30}}, 10, -1},
      {"untimed before timed", {{10, -1}, {10, 30}}, 9, -1},
      {"timed after untimed has left", {{10, -1}, {10, 30}}, 10, 30},
      {"each its own", {{10, 20}, {10, 30}}, 15, 30},
      {"large, untimed", {{large, -1}, {10, 30}}, 5, -1},
      {"small behind large", {{large, -1}, {10, 30}}, large, 30},
      {"large behind small", {{10, 20}, {large, 40}}, 10, 40},
      {"nothing at all", {{0, 30}}, 0, -1},
  };
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.name);
    Outgoing outgoing;
    for (const Write& write : entry.writes) {
      outgoing.append(VELData(std::string(write.length, 'x')), milliseconds(write.timeout), 0);
    }
    const MonotonicTime start = 1'000 * kMilli;
    outgoing.due(start);
    if (entry.sent > 0) take(outgoing, entry.sent);
    outgoing.shrink();
    const MonotonicTime due = outgoing.due(start);
    EXPECT_EQ(due, entry.running < 0 ? kNever : timeAfter(start, milliseconds(entry.running)));
    // Asking again does not begin again.
    EXPECT_EQ(outgoing.due(start + 5 * kMilli), due);
  }
  // Joined writes have it one after the other.
  Outgoing outgoing;
  outgoing.append("", VELData(std::string(large, 'x')), milliseconds(-1));
  for (int i = 0; i < 10; ++i) outgoing.append("-", VELData(), milliseconds(30));
  take(outgoing, large);
  for (int i = 0; i < 10; ++i) {
    const MonotonicTime start = (1 + i) * 1'000 * kMilli;
    EXPECT_EQ(outgoing.due(start), timeAfter(start, milliseconds(30)));
    EXPECT_EQ(outgoing.due(start + kMilli), timeAfter(start, milliseconds(30)));
    take(outgoing, 1);
  }
}

}  // namespace
}  // namespace vel::test
