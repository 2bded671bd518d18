// Writes of a socket: order, completions, slow readers, time-outs, and writes from everywhere.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/loop_pool.h"
#include "platform/queue_steps.h"
#include "support/socket_events.h"

namespace vel::test {
namespace {

using std::chrono::seconds;

std::string pattern(size_t length, size_t seed = 0) {
  std::string bytes(length, 0);
  for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>((i + seed) * 131 >> 7);
  return bytes;
}

std::vector<std::string> wroteUpTo(size_t count) {
  std::vector<std::string> events;
  for (size_t i = 0; i < count; ++i) events.push_back("wrote " + std::to_string(i));
  return events;
}

// Small writes count as written at once: who answers each with the next one does not keep the loop.
TEST(SocketWriting, EndlessSmallOnesLeaveOthersTheirTurn) {
  const auto loops = std::make_shared<VELEventLoops>(1);
  ServedSocket served(loops);
  const auto other = std::make_shared<VELSerialQueue>("other", loops);
  std::atomic<bool> had_turn{false};
  int writes = 0;
  Count done;
  served.onQueue([&] {
    served.events->reaction = [&](VELSocket& socket, const std::string&) {
      if (++writes == 1) other->async([&] { had_turn = true; });
      if (had_turn || writes > 50'000) return done.add();
      socket.writeData(VELData(std::string("x")), kNoTimeout, 0);
    };
    served.socket->writeData(VELData(std::string("x")), kNoTimeout, 0);
  });
  ASSERT_TRUE(done.reaches(1));
  EXPECT_TRUE(had_turn);
}

TEST(SocketWriting, KeepsTheOrderOfAllSizes) {
  const size_t sizes[] = {10, 0, 300'000, 1, 0, 20'000, 5, 5'000'000, 16'384, 16'385, 0};
  for (const bool at_once : {true, false}) {
    ServedSocket served;
    std::string expected;
    const auto write = [&] {
      int64_t tag = 0;
      for (const size_t size : sizes) {
        const std::string bytes = pattern(size, static_cast<size_t>(tag));
        expected += bytes;
        served.socket->writeData(VELData(bytes), seconds(30), tag++);
      }
    };
    // In one turn, or each posted by itself.
    at_once ? served.onQueue(write) : write();
    served.socket->disconnectAfterWriting();
    EXPECT_EQ(served.peer.receiveAll(), expected);
    EXPECT_EQ(served.events->await("ended"), "ended");
    EXPECT_EQ(served.events->those("wrote"), wroteUpTo(std::size(sizes)));
  }
}

TEST(SocketWriting, TakesNoMoreThanABufferAheadOfASlowReader) {
  constexpr size_t kPiece = 1000;
  ServedSocket served(nullptr, 4096);
  std::atomic<int64_t> written{0};
  const auto next = [&](VELSocket& socket) {
    const int64_t tag = written++;
    socket.writeData(VELData(pattern(kPiece, static_cast<size_t>(tag))), kNoTimeout, tag);
  };
  served.onQueue([&] {
    served.events->reaction = [&](VELSocket& socket, const std::string& event) {
      if (event.starts_with("wrote")) next(socket);
    };
    next(*served.socket);
  });
  // Until the system takes no more and the buffer is full.
  int64_t before = -1;
  for (int still = 0; still < 20;) {
    settle(*served.queue);
    still = written == before ? still + 1 : 0;
    before = written;
  }
  served.onQueue([&] {
    EXPECT_LE(served.socket->unsentLength(), 64 * 1024 + kPiece);
    EXPECT_GT(served.socket->unsentLength(), 0U);
    served.events->reaction = nullptr;
    served.socket->disconnectAfterWriting();
  });
  const std::string received = served.peer.receiveAll();
  std::string expected;
  for (int64_t tag = 0; tag < written; ++tag) expected += pattern(kPiece, static_cast<size_t>(tag));
  EXPECT_EQ(received.size(), expected.size());
  EXPECT_TRUE(received == expected);
}

TEST(SocketWriting, TimesWhatTheSystemDoesNotTake) {
  for (const bool large : {true, false}) {
    ServedSocket served(nullptr, 4096);
    served.onQueue([&] {
      // More than the system takes; small pieces count as written as long as the buffer has room.
      for (int i = 0; i < (large ? 1 : 400); ++i) {
        served.socket->writeData(VELData(std::string(large ? 20'000'000 : 16'000, 'x')),
                                 seconds(30), i);
      }
    });
    letPass(*served.queue, seconds(20));
    EXPECT_TRUE(served.events->those("ended").empty());
    passTime(*served.queue, seconds(11));
    EXPECT_EQ(served.events->await("ended"), "ended VELSocket 5");
  }
}

TEST(SocketWriting, TellsOfAPeerThatIsGone) {
  ServedSocket served;
  served.peer.close();
  served.onQueue([&] {
    for (int i = 0; i < 50; ++i) {
      served.socket->writeData(VELData(std::string(1'000'000, 'x')), kNoTimeout, i);
    }
  });
  EXPECT_EQ(served.events->await("ended"), "ended VELSocket 7");
}

TEST(SocketWriting, KeepsTheOrderOfEachThread) {
  constexpr int kThreads = 3;
  constexpr int kWrites = 300;
  ServedSocket served;
  std::vector<std::jthread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kWrites; ++i) {
        const std::string line = std::to_string(t) + " " + std::to_string(i) + "\n";
        const auto write = [&] { served.socket->writeData(VELData(line), seconds(30), 0); };
        // Posted, or by a caller of `sync`.
        i % 3 == 0 ? served.onQueue(write) : write();
      }
    });
  }
  threads.clear();
  served.socket->disconnectAfterWriting();
  const std::string received = served.peer.receiveAll();
  std::vector<int> next(kThreads, 0);
  for (size_t at = 0; at < received.size();) {
    const size_t end = received.find('\n', at);
    const auto thread = static_cast<size_t>(received[at] - '0');
    EXPECT_EQ(received.substr(at + 2, end - at - 2), std::to_string(next[thread]++));
    at = end + 1;
  }
  for (const int count : next) EXPECT_EQ(count, kWrites);
}

// A stream without end in either direction, the peer as fast as this side, and nobody takes the loop away.
TEST(SocketWriting, EndlessStreamsLeaveOthersTheirTurn) {
  const VELData piece(std::string(50'000, 'x'));
  for (const bool writes : {true, false}) {
    const auto loops = std::make_shared<VELEventLoops>(1);
    loops->pool()->watcher().stop();
    std::atomic<bool> goes_on{true};
    ServedSocket served(loops);
    const auto next = [&](VELSocket& socket) {
      writes ? socket.writeData(piece, kNoTimeout, 0)
             : socket.readDataToLength(1000, seconds(30), 0);
    };
    served.onQueue([&] {
      served.events->reaction = [&](VELSocket& socket, const std::string& event) {
        if (event.starts_with("wrote") && !goes_on) return;
        if (!event.starts_with("ended")) next(socket);
      };
      next(*served.socket);
    });
    std::jthread peer([&] {
      if (writes) served.peer.receiveAll();
      while (!writes && goes_on) served.peer.send(piece.view());
    });
    const auto other = std::make_shared<VELSerialQueue>("other", loops);
    for (int i = 0; i < 25; ++i) settle(*other);
    goes_on = false;
    if (writes) served.socket->disconnectAfterWriting();
    peer.join();
  }
}

}  // namespace
}  // namespace vel::test
