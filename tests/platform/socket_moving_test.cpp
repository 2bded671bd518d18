// A socket that goes to another delegate and queue in the middle of its traffic.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/socket_events.h"

namespace vel::test {
namespace {

using std::chrono::seconds;

struct Owner {
  explicit Owner(const std::shared_ptr<VELEventLoops>& loops)
      : queue(std::make_shared<VELSerialQueue>("owner", loops)) {}
  ~Owner() {
    queue->sync([this] { events->reaction = nullptr; });
  }
  std::shared_ptr<VELSerialQueue> queue;
  std::shared_ptr<SocketEvents> events = std::make_shared<SocketEvents>();
};

class SocketMoving : public testing::TestWithParam<int> {
 protected:
  // With two loops queues lie on both of them, in turn.
  std::shared_ptr<VELEventLoops> loops_ =
      std::make_shared<VELEventLoops>(static_cast<size_t>(GetParam()));
};
INSTANTIATE_TEST_SUITE_P(Loops, SocketMoving, testing::Values(1, 2, 3));

TEST_P(SocketMoving, KeepsWhatWasReadAheadAndQueued) {
  Owner next(loops_);
  ServedSocket served(loops_);
  served.onQueue([&] {
    served.events->reaction = [&](VELSocket& socket, const std::string& event) {
      if (!event.starts_with("read 0")) return;
      // As an upgrade does it: the answer, the change, and what the next owner asks for.
      socket.writeData(VELData(std::string("101")), seconds(30), 1);
      socket.setDelegate(next.events, next.queue);
      EXPECT_EQ(socket.delegateQueue(), next.queue);
      socket.readDataToLength(2, kNoTimeout, 2);
    };
    served.socket->readDataToData(VELSocket::CRLFData(), seconds(30), 0, 0);
    served.socket->readDataToLength(3, seconds(30), 3);
  });
  served.peer.send("upgrade\r\nahead");
  EXPECT_EQ(served.peer.receive(3), "101");
  EXPECT_EQ(next.events->await("read 2"), "read 2 ad");
  EXPECT_EQ(next.events->those("read")[0], "read 3 ahe");
  EXPECT_NE(next.events->await("wrote 1"), "");
  EXPECT_EQ(served.events->all(), (std::vector<std::string>{"read 0 upgrade\r\n"}));
}

TEST_P(SocketMoving, KeepsAPartOfALargeRead) {
  Owner next(loops_);
  ServedSocket served(loops_);
  const std::string bytes(400'000, 'x');
  served.socket->readDataToLength(bytes.size(), seconds(30), 0);
  served.peer.send(bytes.substr(0, 200'000));
  served.socket->setDelegate(next.events, next.queue);
  served.peer.send(bytes.substr(200'000));
  EXPECT_NE(next.events->await("read 0"), "");
  EXPECT_EQ(next.events->bytesRead(), bytes);
}

// Within the same queue the change holds for the very next callback.
TEST_P(SocketMoving, NewDelegateOnTheSameQueueIsToldNext) {
  Owner next(loops_);
  ServedSocket served(loops_);
  served.onQueue([&] {
    served.events->reaction = [&](VELSocket& socket, const std::string&) {
      socket.setDelegate(next.events, served.queue);
    };
    served.socket->readDataToLength(1, kNoTimeout, 0);
    served.socket->readDataToLength(1, kNoTimeout, 1);
  });
  served.peer.send("ab");
  EXPECT_EQ(next.events->await("read"), "read 1 b");
  EXPECT_EQ(served.events->all().size(), 1U);
}

TEST_P(SocketMoving, EndIsToldToTheNewOwner) {
  struct Case {
    const char* name;
    std::function<void(VELSocket&)> before;
    std::function<void(VELSocket&)> after;
    std::string event;
  };
  const auto nothing = [](VELSocket&) {};
  const auto disconnect = [](VELSocket& socket) { socket.disconnect(); };
  const auto read = [](VELSocket& socket) { socket.readDataToLength(1, seconds(30), 7); };
  const Case cases[] = {
      {"disconnected before", disconnect, nothing, "ended"},
      {"disconnected after", nothing, disconnect, "ended"},
      {"ended by the peer", read, nothing, "ended VELSocket 7"},
  };
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.name);
    Owner next(loops_);
    ServedSocket served(loops_);
    served.socket->readDataToLength(1, kNoTimeout, 0);
    served.peer.send("x");
    ASSERT_NE(served.events->await("read 0"), "");
    served.onQueue([&] {
      entry.before(*served.socket);
      served.socket->setDelegate(next.events, next.queue);
      entry.after(*served.socket);
    });
    if (entry.event != "ended") served.peer.close();
    EXPECT_EQ(next.events->await("ended"), entry.event);
    EXPECT_EQ(served.events->all().size(), 1U);
    served.socket.reset();
  }
}

TEST_P(SocketMoving, TimeoutsGoAlong) {
  Owner next(loops_);
  ServedSocket served(loops_);
  served.socket->readDataToLength(1, seconds(30), 0);
  served.socket->writeData(VELData(std::string("x")), seconds(30), 2);
  // Told in the turn in which the time of the read begins; the next one finds it running.
  ASSERT_NE(served.events->await("wrote 2"), "");
  served.queue->sync([] {});
  passTime(*served.queue, seconds(20));
  served.socket->setDelegate(next.events, next.queue);
  served.socket->writeData(VELData(std::string("x")), seconds(30), 1);
  ASSERT_NE(next.events->await("wrote 1"), "");
  passTime(*next.queue, seconds(20));
  EXPECT_EQ(next.events->await("ended"), "ended VELSocket 4");
}

// Lines that a thread writes while others take the socket from queue to queue: all arrive, in order, and
// so does what the peer sends.
TEST_P(SocketMoving, LosesAndReordersNothingUnderWay) {
  constexpr size_t kMoves = 200;
  constexpr int kLines = 2000;
  std::vector<std::unique_ptr<Owner>> owners;
  std::atomic<int> reads{0};
  std::string expected;
  for (int i = 0; i < 4; ++i) {
    owners.push_back(std::make_unique<Owner>(loops_));
    owners.back()->events->reaction = [&](VELSocket& socket, const std::string& event) {
      if (!event.starts_with("read")) return;
      EXPECT_EQ(event, "read 0 " + std::to_string(reads) + "\r\n");
      ++reads;
      socket.readDataToData(VELSocket::CRLFData(), seconds(30), 100, 0);
    };
  }
  ServedSocket served(loops_);
  const auto socket = served.socket;
  std::string received;
  std::vector<std::jthread> threads;
  // The peer, both ways.
  threads.emplace_back([&] { received = served.peer.receiveAll(); });
  threads.emplace_back([&] {
    for (int i = 0; i < kLines; ++i) served.peer.send(std::to_string(i) + "\r\n");
  });
  served.socket->setDelegate(owners[0]->events, owners[0]->queue);
  socket->readDataToData(VELSocket::CRLFData(), seconds(30), 100, 0);
  threads.emplace_back([&] {
    for (size_t i = 0; i < kMoves; ++i) {
      const Owner& owner = *owners[i % owners.size()];
      const auto move = [&] { socket->setDelegate(owner.events, owner.queue); };
      i % 3 == 0 ? owners[i / 3 % owners.size()]->queue->sync(move) : move();
    }
  });
  std::jthread writing([&] {
    for (int i = 0; i < kLines; ++i) {
      const std::string line = std::to_string(i) + "\n";
      expected += line;
      socket->writeData(VELData(line), seconds(30), 1);
    }
  });
  writing.join();
  threads.back().join();
  while (reads < kLines) std::this_thread::yield();
  socket->disconnectAfterWriting();
  threads.clear();
  EXPECT_TRUE(received == expected);
  for (const auto& owner : owners) {
    EXPECT_TRUE(owner->events->those("misplaced").empty());
    owner->queue->sync([] {});
  }
}

// Closed from anywhere while it moves; nothing is left behind.
TEST_P(SocketMoving, MayEndUnderWay) {
  const size_t before = openDescriptorCount();
  for (int round = 0; round < 60; ++round) {
    Owner first(loops_);
    Owner second(loops_);
    ServedSocket served(loops_);
    const auto socket = served.socket;
    served.socket->readDataToLength(100'000, seconds(30), 0);
    std::vector<std::jthread> threads;
    threads.emplace_back([&] {
      try {
        for (int i = 0; i < 20; ++i) served.peer.send("some bytes");
        if (round % 2 == 0) served.peer.reset();
      } catch (const std::system_error&) {
        // It has ended.
      }
    });
    threads.emplace_back([&] {
      for (int i = 0; i < 6; ++i) {
        Owner& owner = i % 2 == 0 ? first : second;
        socket->setDelegate(owner.events, owner.queue);
      }
    });
    if (round % 3 == 0) socket->disconnect();
    if (round % 3 == 1) second.queue->sync([&] { socket->disconnectAfterWriting(); });
    threads.clear();
    socket->disconnect();
    while (first.events->those("ended").empty() && second.events->those("ended").empty() &&
           served.events->those("ended").empty()) {
      std::this_thread::yield();
    }
    EXPECT_FALSE(socket->isConnected());
    served.socket.reset();
  }
  EXPECT_LE(openDescriptorCount(), before + 10);
}

}  // namespace
}  // namespace vel::test
