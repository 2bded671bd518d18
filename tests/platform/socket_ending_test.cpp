// How connections end: by the peer, by this side, by their delegate.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/queue_steps.h"
#include "support/log_capture.h"
#include "support/socket_events.h"

namespace vel::test {
namespace {

using std::chrono::seconds;

VELData text(size_t length) { return VELData(std::string(length, 'x')); }

TEST(SocketEnding, PeerThatGoesEndsTheConnection) {
  const struct {
    const char* name;
    size_t wanted;  // by the read that is pending; none when zero
    size_t sent;
    bool resets;
  } cases[] = {
      {"closes within a read", 100, 10, false},
      {"resets within a read", 100, 10, true},
      {"resets before a large read", 512 * 1024, 0, true},
      {"resets at the start of a large read", 512 * 1024, 1, true},
      {"resets within a large read", 512 * 1024, 100'000, true},
      {"resets without a read", 0, 0, true},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    ServedSocket served;
    served.socket->readDataToLength(1, kNoTimeout, 0);
    if (row.wanted > 0) served.socket->readDataToLength(row.wanted, kNoTimeout, 1);
    served.peer.send("x" + std::string(row.sent, 'x'));
    ASSERT_NE(served.events->await("read 0"), "");
    settle(*served.queue);
    row.resets ? served.peer.reset() : served.peer.close();
    EXPECT_EQ(served.events->await("ended"), "ended VELSocket 7");
    EXPECT_EQ(served.events->all().size(), 2U);
    EXPECT_FALSE(served.socket->isConnected());
  }
}

// Has the socket read a byte, and wait for nothing any more.
void readOne(ServedSocket& served) {
  served.socket->readDataToLength(1, kNoTimeout, 0);
  served.peer.send("x");
  ASSERT_NE(served.events->await("read 0"), "");
  settle(*served.queue);
}

TEST(SocketEnding, HalfCloseWithoutAReadIsNoEnd) {
  ServedSocket served;
  readOne(served);
  served.peer.send("y");
  served.peer.finish();
  settle(*served.queue);
  served.socket->writeData(text(3), kNoTimeout, 1);
  EXPECT_EQ(served.peer.receive(3), "xxx");
  // What came before the end is still there.
  served.socket->readDataToLength(1, kNoTimeout, 2);
  EXPECT_EQ(served.events->await("read 2"), "read 2 y");
  served.onQueue([&] {
    served.socket->writeData(text(1'000'000), kNoTimeout, 3);
    served.socket->readDataToLength(1, kNoTimeout, 4);
  });
  EXPECT_EQ(served.peer.receiveAll().size(), 1'000'000U);
  EXPECT_EQ(served.events->await("ended"), "ended VELSocket 7");
}

TEST(SocketEnding, DisconnectDropsWhatIsQueued) {
  ServedSocket served;
  served.onQueue([&] {
    served.socket->readDataToLength(1, seconds(30), 0);
    served.socket->readDataToLength(1, seconds(30), 1);
    served.socket->writeData(text(50'000'000), seconds(30), 2);
    served.socket->disconnect();
    served.socket->disconnect();
    served.socket->writeData(text(1), seconds(30), 3);
    EXPECT_TRUE(served.events->all().empty());
  });
  EXPECT_EQ(served.events->await("ended"), "ended");
  served.peer.receiveAll();
  settle(*served.queue);
  EXPECT_EQ(served.events->all().size(), 1U);
}

TEST(SocketEnding, DisconnectAfterWritingSendsEverything) {
  constexpr size_t kLength = 30'000'000;
  ServedSocket served(nullptr, 4096);
  served.onQueue([&] {
    served.socket->readDataToLength(1, seconds(30), 0);
    served.socket->writeData(text(kLength), kNoTimeout, 1);
    served.socket->disconnectAfterWriting();
    served.socket->writeData(text(1), seconds(30), 2);
  });
  // The read that is not going to be served has no time to run out.
  letPass(*served.queue, seconds(60));
  EXPECT_EQ(served.peer.receiveAll().size(), kLength);
  EXPECT_FALSE(served.peer.wasReset());
  EXPECT_EQ(served.events->await("ended"), "ended");
  EXPECT_EQ(served.events->all(), (std::vector<std::string>{"wrote 1", "ended"}));
}

// Bytes that nobody reads must not turn the end into a reset that takes the answer away.
TEST(SocketEnding, LingersForAPeerThatStillSends) {
  ServedSocket served;
  served.peer.send("request\r\n" + std::string(30'000, 'x'));
  served.socket->readDataToData(VELSocket::CRLFData(), kNoTimeout, 0, 0);
  ASSERT_NE(served.events->await("read 0"), "");
  served.peer.send(std::string(100'000, 'x'));
  served.onQueue([&] {
    served.socket->writeData(text(100'000), kNoTimeout, 1);
    served.socket->disconnectAfterWriting();
  });
  EXPECT_EQ(served.events->await("ended"), "ended");
  served.peer.send(std::string(1'000'000, 'x'));
  EXPECT_EQ(served.peer.receiveAll().size(), 100'000U);
  EXPECT_FALSE(served.peer.wasReset());
  // The patience with such a peer ends.
  passTime(*served.queue, seconds(5));
  const auto sendOn = [&] {
    while (true) served.peer.send(std::string(1'000'000, 'x'));
  };
  EXPECT_THROW(sendOn(), std::system_error);
}

TEST(SocketEnding, DelegateThatIsGoneIsAnEnd) {
  for (const bool something_comes : {true, false}) {
    ServedSocket served;
    served.socket->readDataToLength(10, kNoTimeout, 0);
    settle(*served.queue);
    served.onQueue([&] { served.events = std::make_shared<SocketEvents>(); });
    something_comes ? served.peer.send("x") : passTime(*served.queue, seconds(60));
    EXPECT_EQ(served.peer.receiveAll(), "");
    served.socket.reset();
  }
}

TEST(SocketEnding, SocketThatNobodyHoldsEnds) {
  for (const bool in_a_turn_of_its_own : {true, false}) {
    ServedSocket served;
    readOne(served);
    served.onQueue([&] {
      if (in_a_turn_of_its_own) served.socket->writeData(text(5), kNoTimeout, 1);
      served.socket.reset();
    });
    if (!in_a_turn_of_its_own) passTime(*served.queue, seconds(60));
    EXPECT_EQ(served.peer.receiveAll().size(), in_a_turn_of_its_own ? 5U : 0U);
  }
}

// Unlike one that waits for something.
TEST(SocketEnding, SocketThatReadsHoldsItself) {
  ServedSocket served;
  served.socket->readDataToLength(1, kNoTimeout, 0);
  settle(*served.queue);
  served.onQueue([&] { served.socket.reset(); });
  letPass(*served.queue, seconds(60));
  served.peer.send("x");
  EXPECT_EQ(served.events->await("read"), "read 0 x");
  EXPECT_EQ(served.events->await("ended"), "ended");
}

TEST(SocketEnding, DelegateThatThrowsLosesNothingElse) {
  const LogCapture log;
  int throws = 3;
  ServedSocket served;
  served.onQueue([&] {
    served.events->reaction = [&](VELSocket&, const std::string&) {
      if (throws-- > 0) throw 1;
    };
    served.socket->readDataToLength(1, kNoTimeout, 0);
    served.socket->readDataToLength(1, kNoTimeout, 1);
    served.socket->writeData(text(2), kNoTimeout, 2);
    served.socket->readDataToLength(1, kNoTimeout, 3);
  });
  served.peer.send("abc");
  EXPECT_EQ(served.events->await("read 3"), "read 3 c");
  EXPECT_EQ(served.peer.receive(2), "xx");
  EXPECT_EQ(served.events->all().size(), 4U);
  EXPECT_EQ(log.lines().size(), 3U);
}

TEST(SocketEnding, IsToldEvenIfTheDelegateThrowsAfterDisconnecting) {
  const LogCapture log;
  ServedSocket served;
  served.onQueue([&] {
    served.events->reaction = [](VELSocket& socket, const std::string& event) {
      if (!event.starts_with("read")) return;
      socket.disconnect();
      throw 1;
    };
    served.socket->readDataToLength(1, kNoTimeout, 0);
  });
  served.peer.send("ab");
  EXPECT_EQ(served.events->await("ended"), "ended");
}

TEST(SocketEnding, MayComeFromEveryCallback) {
  for (const char* kind : {"read", "wrote", "ended"}) {
    for (const bool gently : {false, true}) {
      for (const bool drops : {false, true}) {
        SCOPED_TRACE(kind);
        ServedSocket served;
        served.onQueue([&] {
          served.events->reaction = [&, kind](VELSocket& socket, const std::string& event) {
            if (!event.starts_with(kind)) return;
            gently ? socket.disconnectAfterWriting() : socket.disconnect();
            if (drops) served.socket.reset();
          };
          for (int64_t tag = 0; tag < 3; ++tag) {
            served.socket->readDataToLength(1, seconds(30), tag);
            served.socket->writeData(text(1), seconds(30), tag);
          }
        });
        served.peer.send("ab");
        if (*kind == 'e') served.peer.close();
        EXPECT_TRUE(served.events->await("ended").starts_with("ended"));
      }
    }
  }
}

// A socket that nobody used yet, told to disconnect and dropped in the same turn.
TEST(SocketEnding, UnusedSocketsMayEndInOneTurn) {
  const auto queue = std::make_shared<VELSerialQueue>("test");
  const ListeningSocket listening;
  const SocketPeer peer = SocketPeer::connectedTo(listening.port());
  listening.accepted();
  for (const bool on_loop : {false, true}) {
    const auto work = [&] {
      const auto events = std::make_shared<SocketEvents>();
      auto socket = VELSocket::socketWithDelegate(events, queue);
      socket->disconnect();
      socket.reset();
      socket = VELSocket::socketWithDelegate(events, queue);
      EXPECT_TRUE(socket->acceptOnInterface("127.0.0.1", 0, nullptr));
      socket->disconnect();
      socket->disconnect();
      EXPECT_EQ(socket->localPort(), 0);
    };
    on_loop ? queue->async(work) : queue->sync(work);
    queue->sync([] {});
  }
  const auto unused = listening.accepted();
  listening.queue->async([unused] { unused->disconnect(); });
  settle(*listening.queue);
}

}  // namespace
}  // namespace vel::test
