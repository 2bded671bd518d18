// Reads of a socket: by terminator and by length, however the bytes arrive, in time or too late.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/queue_steps.h"
#include "support/socket_events.h"

namespace vel::test {
namespace {

using std::chrono::seconds;

struct Read {
  // Up to this, or as many bytes as `length` when it is empty.
  std::string terminator;
  size_t length;
};

const std::string kLine = "\r\n";

void issue(VELSocket& socket, const Read& read, int64_t tag,
           std::chrono::milliseconds timeout = kNoTimeout) {
  if (read.terminator.empty()) {
    socket.readDataToLength(read.length, timeout, tag);
  } else {
    socket.readDataToData(VELData(read.terminator), timeout, read.length, tag);
  }
}

struct ReadingCase {
  const char* name;
  std::vector<Read> reads;
  std::string bytes;
  std::vector<std::string> events;
};

const ReadingCase kCases[] = {
    {"lines",
     {{kLine, 0}, {kLine, 0}, {kLine, 0}},
     "ab\r\n\r\nc\rd\n\r\n",
     {"read 0 ab\r\n", "read 1 \r\n", "read 2 c\rd\n\r\n"}},
    {"lengths",
     {{"", 1}, {"", 3}, {"", 0}, {"", 5}},
     "abcdefghi",
     {"read 0 a", "read 1 bcd", "read 2 ", "read 3 efghi"}},
    {"lines and lengths",
     {{kLine, 0}, {"", 3}, {kLine, 0}},
     "4\r\n\r\n\r\n\n",
     {"read 0 4\r\n", "read 1 \r\n\r"}},
    {"other terminators",
     {{"--x", 0}, {"aab", 0}, {"!", 0}},
     "---xaaab!",
     {"read 0 ---x", "read 1 aaab", "read 2 !"}},
    {"limit just kept", {{kLine, 4}, {"ab", 3}}, "ab\r\ncab", {"read 0 ab\r\n", "read 1 cab"}},
    {"limit passed", {{kLine, 4}, {kLine, 0}}, "abc\r\nd\r\n", {"ended VELSocket 6"}},
    {"limit within the terminator", {{kLine, 3}}, "ab\r\n", {"ended VELSocket 6"}},
    {"limit reached without it", {{"xy", 3}}, "abc", {"ended VELSocket 6"}},
    {"limit of a later read",
     {{kLine, 9}, {kLine, 2}},
     "ab\r\nab\r\n",
     {"read 0 ab\r\n", "ended VELSocket 6"}},
};

TEST(SocketReading, DeliversWhatWasAskedForHoweverItArrives) {
  for (const ReadingCase& entry : kCases) {
    for (size_t split = 0; split <= entry.bytes.size(); ++split) {
      SCOPED_TRACE(std::string(entry.name) + ", split at " + std::to_string(split));
      ServedSocket served;
      int64_t tag = 0;
      for (const Read& read : entry.reads) issue(*served.socket, read, tag++);
      served.peer.send(entry.bytes.substr(0, split));
      settle(*served.queue);
      served.peer.send(entry.bytes.substr(split));
      EXPECT_EQ(served.events->await(entry.events.back()), entry.events.back());
      EXPECT_EQ(served.events->all(), entry.events);
    }
  }
}

// The same with everything there before the first read, and each read issued by the one before.
TEST(SocketReading, DeliversWhatWasReadAhead) {
  for (const ReadingCase& entry : kCases) {
    SCOPED_TRACE(entry.name);
    size_t issued = 0;
    ServedSocket served;
    const auto next = [&](VELSocket& socket) {
      if (issued == entry.reads.size()) return;
      issue(socket, entry.reads[issued], static_cast<int64_t>(issued));
      ++issued;
    };
    served.events->reaction = [&](VELSocket& socket, const std::string&) { next(socket); };
    served.peer.send(entry.bytes);
    served.onQueue([&] { next(*served.socket); });
    EXPECT_EQ(served.events->await(entry.events.back()), entry.events.back());
    EXPECT_EQ(served.events->all(), entry.events);
  }
}

TEST(SocketReading, DeliversLargePieces) {
  constexpr size_t kPiece = 512 * 1024;
  std::string bytes(3 * kPiece + 77, 0);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 31 >> 8);
  ServedSocket served;
  served.events->reaction = [&](VELSocket& socket, const std::string& event) {
    const int64_t tag = event[5] - '0' + 1;
    if (tag < 4) socket.readDataToLength(tag < 3 ? kPiece : 77, kNoTimeout, tag);
  };
  served.socket->readDataToLength(kPiece, kNoTimeout, 0);
  served.peer.send(bytes);
  EXPECT_NE(served.events->await("read 3"), "");
  EXPECT_EQ(served.events->bytesRead(), bytes);
}

// A peer that announces much costs memory only for what it sends.
TEST(SocketReading, LargeLengthsCostNothingBeforehand) {
  ServedSocket served;
  served.socket->readDataToLength(SIZE_MAX / 2, kNoTimeout, 0);
  std::string bytes(3'000'000, 'x');
  served.peer.send(bytes);
  served.peer.finish();
  EXPECT_EQ(served.events->await("ended"), "ended VELSocket 7");
  served.socket.reset();
}

TEST(SocketReading, CompletesNeverInsideTheCall) {
  bool is_inside = false;
  ServedSocket served;
  served.peer.send("a\r\nbc");
  served.socket->readDataToData(VELSocket::CRLFData(), kNoTimeout, 0, 0);
  ASSERT_EQ(served.events->await("read 0"), "read 0 a\r\n");
  served.onQueue([&] {
    served.events->reaction = [&](VELSocket&, const std::string&) { EXPECT_FALSE(is_inside); };
    is_inside = true;
    served.socket->readDataToLength(2, kNoTimeout, 1);
    served.socket->writeData(VELData(std::string("x")), kNoTimeout, 2);
    is_inside = false;
  });
  EXPECT_NE(served.events->await("read 1"), "");
  EXPECT_NE(served.events->await("wrote 2"), "");
}

TEST(SocketReading, TimesTheWholeRead) {
  for (const Read& read : {Read{kLine, 100}, Read{"", 50}, Read{"", 100'000}}) {
    ServedSocket served;
    issue(*served.socket, read, 0, seconds(30));
    served.peer.send("a part");
    letPass(*served.queue, seconds(20));
    served.peer.send("another");  // does not begin the time anew
    settle(*served.queue);
    EXPECT_TRUE(served.events->all().empty());
    passTime(*served.queue, seconds(10));
    EXPECT_EQ(served.events->await("ended"), "ended VELSocket 4");
    EXPECT_EQ(served.peer.receiveAll(), "");
  }
}

TEST(SocketReading, TimesEachReadByItself) {
  ServedSocket served;
  for (int64_t tag = 0; tag < 3; ++tag) issue(*served.socket, {kLine, 0}, tag, seconds(30));
  for (int64_t tag = 0; tag < 2; ++tag) {
    settle(*served.queue);
    passTime(*served.queue, seconds(20));
    served.peer.send("x\r\n");
    ASSERT_NE(served.events->await("read " + std::to_string(tag)), "");
  }
  letPass(*served.queue, seconds(20));
  EXPECT_EQ(served.events->all().size(), 2U);
  passTime(*served.queue, seconds(20));
  EXPECT_EQ(served.events->await("ended"), "ended VELSocket 4");
}

TEST(SocketReading, NeedsNoTimeoutToWait) {
  ServedSocket served;
  issue(*served.socket, {kLine, 0}, 0);
  issue(*served.socket, {kLine, 0}, 1, std::chrono::milliseconds::max());
  for (const size_t reads : {1U, 2U}) {
    letPass(*served.queue, std::chrono::hours(100));
    EXPECT_TRUE(served.events->those("ended").empty());
    served.peer.send("x\r\n");
    EXPECT_NE(served.events->await("read", reads), "");
  }
}

// What came while the queue was busy came in time.
TEST(SocketReading, BusyQueueIsNoLatePeer) {
  const auto loops = std::make_shared<VELEventLoops>(1);
  ServedSocket served(loops);
  issue(*served.socket, {kLine, 0}, 0, seconds(30));
  settle(*served.queue);
  served.onQueue([&] {
    served.peer.send("x\r\n");
    advanceClock(seconds(60));
    // The loop sees both before the queue is given free.
    const auto other = std::make_shared<VELSerialQueue>("other", loops);
    settle(*other);
  });
  EXPECT_EQ(served.events->await(""), "read 0 x\r\n");
}

}  // namespace
}  // namespace vel::test
