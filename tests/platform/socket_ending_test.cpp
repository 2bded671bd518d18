// How connections end: by the peer, by this side, by their delegate, and that nothing is left behind.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/count.h"
#include "support/log_capture.h"
#include "support/socket_events.h"

namespace vel::test {
namespace {

using std::chrono::seconds;

void settle(VELSerialQueue& queue) {
  for (int i = 0; i < 2; ++i) {
    Count done;
    queue.async([&] { done.add(); });
    ASSERT_TRUE(done.reaches(1));
  }
}

VELData text(size_t length) { return VELData(std::string(length, 'x')); }

TEST(SocketEnding, PeerThatClosesEndsAPendingRead) {
  for (const bool resets : {false, true}) {
    ServedSocket served;
    served.socket->readDataToData(VELSocket::CRLFData(), kNoTimeout, 0, 0);
    served.socket->readDataToData(VELSocket::CRLFData(), kNoTimeout, 0, 1);
    served.peer.send("a\r\nand a part");
    ASSERT_NE(served.events->await("read 0"), "");
    resets ? served.peer.reset() : served.peer.close();
    EXPECT_EQ(served.events->await("ended"), "ended VELSocket 7");
    EXPECT_EQ(served.events->all().size(), 2U);
    EXPECT_FALSE(served.socket->isConnected());
  }
}

TEST(SocketEnding, ResetWithinALargeRead) {
  for (const size_t sent : {0U, 1U, 100'000U}) {
    ServedSocket served;
    served.socket->readDataToLength(512 * 1024, kNoTimeout, 0);
    served.peer.send(std::string(sent, 'x'));
    settle(*served.queue);
    served.peer.reset();
    EXPECT_EQ(served.events->await("ended"), "ended VELSocket 7");
  }
}

TEST(SocketEnding, HalfCloseWithoutAReadIsNoEnd) {
  ServedSocket served;
  served.socket->readDataToLength(1, kNoTimeout, 0);
  served.peer.send("xy");
  served.peer.finish();
  ASSERT_NE(served.events->await("read 0"), "");
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

TEST(SocketEnding, ResetWithoutAReadIsAnEnd) {
  ServedSocket served;
  served.socket->readDataToLength(1, kNoTimeout, 0);
  served.peer.send("x");
  ASSERT_NE(served.events->await("read 0"), "");
  served.peer.reset();
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
  settle(*served.queue);
  passTime(*served.queue, seconds(60));
  settle(*served.queue);
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
    if (something_comes) {
      served.peer.send("x");
    } else {
      passTime(*served.queue, seconds(60));
    }
    EXPECT_EQ(served.peer.receiveAll(), "");
    served.socket.reset();
  }
}

TEST(SocketEnding, SocketThatNobodyHoldsEnds) {
  for (const bool in_a_turn_of_its_own : {true, false}) {
    ServedSocket served;
    served.socket->readDataToLength(1, kNoTimeout, 0);
    served.peer.send("x");
    ASSERT_NE(served.events->await("read 0"), "");
    settle(*served.queue);
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
  passTime(*served.queue, seconds(60));
  settle(*served.queue);
  served.peer.send("x");
  EXPECT_EQ(served.events->await("read"), "read 0 x");
  EXPECT_EQ(served.events->await("ended"), "ended");
}

struct Complaints final : LastResort {
  void workDidThrow(const std::exception_ptr&) override { count.add(); }
  Count count;
};

TEST(SocketEnding, DelegateThatThrowsLosesNothingElse) {
  const LogCapture log;
  const auto complaints = std::make_shared<Complaints>();
  std::atomic<int> throws{3};
  ServedSocket served;
  served.onQueue([&] {
    served.queue->setLastResort(complaints);
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
  EXPECT_TRUE(complaints->count.reaches(3));
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
    };
    if (on_loop) {
      queue->async(work);
      queue->sync([] {});
    } else {
      queue->sync(work);
    }
  }
  const auto unused = listening.accepted();
  listening.queue->async([unused] { unused->disconnect(); });
  settle(*listening.queue);
}

// Connections that come and go in every way, on two loops; nothing of them is left behind.
TEST(SocketEnding, LeavesNothingBehind) {
  constexpr int kConnections = 10'000;
  const auto loops = std::make_shared<VELEventLoops>(2);
  struct Session : SocketEvents {
    std::shared_ptr<VELSocket> own;
  };
  struct Server : VELSocketDelegate {
    std::shared_ptr<VELEventLoops> loops;
    Count ended;
    int accepted = 0;
    void socketDidAcceptNewSocket(VELSocket&, std::shared_ptr<VELSocket> socket) override {
      const int kind = accepted++ % 5;
      const auto queue = std::make_shared<VELSerialQueue>("session", loops);
      const auto session = std::make_shared<Session>();
      session->own = socket;
      session->reaction = [this, kind, session = std::shared_ptr<Session>(session)](
                              VELSocket& own, const std::string& event) mutable {
        if (event.starts_with("read") && kind == 1) own.disconnect();
        if (event.starts_with("read") && kind == 2) own.disconnectAfterWriting();
        if (!event.starts_with("ended")) return;
        ended.add();
        const auto keep = std::exchange(session, nullptr);
        keep->own.reset();
      };
      socket->setDelegate(session, queue);
      socket->readDataToLength(4, seconds(30), 0);
      socket->writeData(VELData(std::string("pong")), seconds(30), 1);
      if (kind == 3) socket->readDataToLength(4, seconds(30), 2);
      if (kind == 4) std::thread([socket] { socket->disconnect(); }).detach();
    }
  };
  const auto server = std::make_shared<Server>();
  server->loops = loops;
  const auto queue = std::make_shared<VELSerialQueue>("server", loops);
  const auto listening = VELSocket::socketWithDelegate(server, queue);
  ASSERT_TRUE(listening->acceptOnInterface("127.0.0.1", 0, nullptr));
  const uint16_t port = listening->localPort();
  const size_t before = openDescriptorCount();
  for (int i = 0; i < kConnections; ++i) {
    SocketPeer peer = SocketPeer::connectedTo(port);
    try {
      peer.send("ping");
      if (i % 3 == 0) peer.receive(4);
    } catch (const std::system_error&) {
      // The other end may be gone already.
    }
    peer.reset();  // leaves no port waiting
    if (i % 100 == 0) {
      ASSERT_TRUE(server->ended.reaches(i - 100));
    }
  }
  EXPECT_TRUE(server->ended.reaches(kConnections));
  settle(*queue);
  EXPECT_LE(openDescriptorCount(), before + 10);
  listening->disconnect();
}

}  // namespace
}  // namespace vel::test
