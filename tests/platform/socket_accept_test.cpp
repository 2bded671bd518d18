// Listening sockets: where they listen, what they accept, and how they stop.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "platform/queue_steps.h"
#include "support/log_capture.h"
#include "support/socket_events.h"

namespace vel::test {
namespace {

std::shared_ptr<VELSocket> makeSocket(const std::shared_ptr<SocketEvents>& events) {
  return VELSocket::socketWithDelegate(events, std::make_shared<VELSerialQueue>("listening"));
}

bool canConnect(uint16_t port, const std::string& host) {
  try {
    SocketPeer::connectedTo(port, host);
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

TEST(SocketAccept, ListensWhereItIsTold) {
  struct Case {
    std::optional<std::string> interface;
    bool four;
    bool six;
  };
  const Case cases[] = {
      {std::nullopt, true, true}, {"localhost", true, true}, {"loopback", true, true},
      {"127.0.0.1", true, false}, {"::1", false, true},      {"lo", true, true},
      {"0.0.0.0", true, false},
  };
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.interface.value_or("none"));
    const auto events = std::make_shared<SocketEvents>();
    const auto socket = makeSocket(events);
    VELError error;
    ASSERT_TRUE(socket->acceptOnInterface(entry.interface, 0, &error)) << error.description();
    const uint16_t port = socket->localPort();
    EXPECT_NE(port, 0);
    EXPECT_EQ(canConnect(port, "127.0.0.1"), entry.four);
    EXPECT_EQ(canConnect(port, "::1"), entry.six);
    EXPECT_NE(events->await("accepted", static_cast<size_t>(entry.four + entry.six)), "");
    socket->disconnect();
    EXPECT_FALSE(canConnect(port, "127.0.0.1"));
    EXPECT_EQ(socket->localPort(), 0);
  }
}

TEST(SocketAccept, SaysWhyItCannotListen) {
  const ListeningSocket taken;
  struct Case {
    const char* interface;
    uint16_t port;
    const char* domain;
    int64_t code;
  };
  const Case cases[] = {
      {"no-such-interface", 0, VELSocketErrorDomain, kVELSocketBadParameter},
      {"example.invalid", 0, VELSocketErrorDomain, kVELSocketBadParameter},
      {"192.0.2.1", 0, VELPOSIXErrorDomain, EADDRNOTAVAIL},
      {"127.0.0.1", taken.port(), VELPOSIXErrorDomain, EADDRINUSE},
      {"localhost", taken.port(), VELPOSIXErrorDomain, EADDRINUSE},
  };
  const auto socket = makeSocket(nullptr);
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.interface);
    VELError error;
    EXPECT_FALSE(socket->acceptOnInterface(entry.interface, entry.port, &error));
    EXPECT_EQ(error.domain(), entry.domain);
    EXPECT_EQ(error.code(), entry.code);
    EXPECT_FALSE(error.localizedDescription().empty());
  }
  EXPECT_TRUE(socket->acceptOnInterface("127.0.0.1", 0, nullptr));
  VELError error;
  EXPECT_FALSE(socket->acceptOnInterface("127.0.0.1", 0, &error));
  EXPECT_EQ(error.code(), kVELSocketBadConfiguration);
  socket->disconnect();
}

TEST(SocketAccept, ListensAgainAtTheSamePort) {
  const auto events = std::make_shared<SocketEvents>();
  const auto socket = makeSocket(events);
  ASSERT_TRUE(socket->acceptOnInterface("127.0.0.1", 0, nullptr));
  const uint16_t port = socket->localPort();
  for (size_t round = 1; round <= 5; ++round) {
    const SocketPeer peer = SocketPeer::connectedTo(port);
    EXPECT_NE(events->await("accepted", round), "");
    socket->disconnect();
    ASSERT_TRUE(socket->acceptOnInterface("127.0.0.1", port, nullptr));
  }
  socket->disconnect();
}

TEST(SocketAccept, KnowsBothEnds) {
  // IPv4 through a listener for all addresses reads as IPv4.
  for (const auto& interface : {std::optional<std::string>("127.0.0.1"), {}}) {
    const auto events = std::make_shared<SocketEvents>();
    const auto listening = makeSocket(events);
    ASSERT_TRUE(listening->acceptOnInterface(interface, 0, nullptr));
    const SocketPeer peer = SocketPeer::connectedTo(listening->localPort());
    ASSERT_NE(events->await("accepted"), "");
    const auto socket = events->accepted();
    EXPECT_TRUE(socket->isConnected());
    EXPECT_EQ(socket->localAddress().host, "127.0.0.1");
    EXPECT_EQ(socket->localAddress().port, listening->localPort());
    EXPECT_EQ(socket->peerAddress().host, "127.0.0.1");
    EXPECT_EQ(socket->peerAddress().port, peer.localPort());
    listening->disconnect();
  }
}

TEST(SocketAccept, TakesManyAtOnceEvenIfTheDelegateThrows) {
  const LogCapture log;
  for (const bool throws : {false, true}) {
    const ListeningSocket listening;
    listening.events->reaction = [throws](VELSocket&, const std::string&) {
      if (throws) throw 1;
    };
    std::vector<SocketPeer> peers;
    Held held;
    held.hold(*listening.queue);
    for (int i = 0; i < 300; ++i) peers.push_back(SocketPeer::connectedTo(listening.port()));
    held.letGo();
    EXPECT_NE(listening.events->await("accepted", 300), "");
  }
}

TEST(SocketAccept, ClosesWhatNobodyTakes) {
  const ListeningSocket listening;
  SocketPeer first = SocketPeer::connectedTo(listening.port());
  ASSERT_NE(listening.events->await("accepted", 1), "");
  SocketPeer second = SocketPeer::connectedTo(listening.port());
  EXPECT_EQ(first.receiveAll(), "");  // replaced by the second
}

TEST(SocketAccept, PausesWhileDescriptorsHaveRunOut) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "UBSan, which comes with ASan here, needs a pipe to tell an object's type";
#endif
  const LogCapture log;
  const ListeningSocket listening;
  std::vector<SocketPeer> peers;
  for (int i = 0; i < 3; ++i) peers.push_back(SocketPeer::unconnected());
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(next);
  const rlimit none{static_cast<rlim_t>(next), limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  for (SocketPeer& peer : peers) peer.connect(listening.port());
  while (log.lines().empty()) std::this_thread::yield();
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_NE(log.lines()[0].find("Accepting connections pauses"), std::string::npos);
  EXPECT_TRUE(listening.events->all().empty());
  passTime(*listening.queue, std::chrono::seconds(1));
  EXPECT_NE(listening.events->await("accepted", 3), "");
  EXPECT_EQ(log.lines().size(), 1U);
}

// The socket goes away on this thread while its loop accepts.
TEST(SocketAccept, MayBeDroppedWhileConnectionsCome) {
  for (int round = 0; round < 50; ++round) {
    const auto events = std::make_shared<SocketEvents>();
    auto socket = makeSocket(events);
    ASSERT_TRUE(socket->acceptOnInterface("127.0.0.1", 0, nullptr));
    const uint16_t port = socket->localPort();
    std::jthread connecting([port] {
      for (int i = 0; i < 5; ++i) {
        if (!canConnect(port, "127.0.0.1")) return;
      }
    });
    const auto queue = socket->delegateQueue();
    if (round % 2 == 0) events->await("accepted");
    socket.reset();
    // Closed once the queue has come to it.
    queue->sync([] {});
    EXPECT_FALSE(canConnect(port, "127.0.0.1"));
  }
}

}  // namespace
}  // namespace vel::test
