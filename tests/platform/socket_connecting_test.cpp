// Sockets that connect: what is queued before, what can go wrong, and changes of mind.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/queue_steps.h"
#include "support/socket_events.h"

namespace vel::test {
namespace {

using std::chrono::seconds;

struct Client {
  explicit Client(const std::shared_ptr<VELEventLoops>& loops = nullptr)
      : queue(std::make_shared<VELSerialQueue>("client", loops)),
        socket(VELSocket::socketWithDelegate(events, queue)) {}
  ~Client() {
    queue->sync([this] { events->reaction = nullptr; });
    if (socket) socket->disconnect();
  }
  std::shared_ptr<SocketEvents> events = std::make_shared<SocketEvents>();
  std::shared_ptr<VELSerialQueue> queue;
  std::shared_ptr<VELSocket> socket;
};

// A listener that answers no more connections: its queue is full.
struct SilentListener {
  SilentListener() {
    EXPECT_TRUE(first.socket->connectToHost("127.0.0.1", listener.port(), seconds(600)));
    EXPECT_NE(first.events->await("connected"), "");
  }
  PeerListener listener{0};
  // Takes the only place, and keeps it: a socket without its delegate would end.
  Client first;
};

TEST(SocketConnecting, ServesWhatWasIssuedBefore) {
  for (const char* host : {"127.0.0.1", "localhost"}) {
    PeerListener listener;
    Client client;
    ASSERT_TRUE(client.socket->connectToHost(host, listener.port(), seconds(30)));
    client.socket->writeData(VELData(std::string("ping")), seconds(30), 1);
    client.socket->readDataToLength(4, seconds(30), 2);
    SocketPeer peer = listener.accept();
    EXPECT_EQ(peer.receive(4), "ping");
    peer.send("pong");
    EXPECT_EQ(client.events->await("read"), "read 2 pong");
    EXPECT_EQ(client.events->all()[0], "connected " + std::string(host));
    EXPECT_EQ(client.events->all()[1], "wrote 1");
    EXPECT_EQ(client.socket->peerAddress().port, listener.port());
  }
}

TEST(SocketConnecting, WritesAndDisconnectsLater) {
  PeerListener listener;
  Client client;
  ASSERT_TRUE(client.socket->connectToHost("127.0.0.1", listener.port(), seconds(30)));
  client.socket->writeData(VELData(std::string(1'000'000, 'x')), seconds(30), 1);
  client.socket->disconnectAfterWriting();
  EXPECT_EQ(listener.accept().receiveAll().size(), 1'000'000U);
  EXPECT_EQ(client.events->await("ended"), "ended");
  EXPECT_EQ(client.events->all(),
            (std::vector<std::string>{"connected 127.0.0.1", "wrote 1", "ended"}));
}

TEST(SocketConnecting, TellsWhyItFailed) {
  uint16_t unused = 0;
  {
    const PeerListener listener;
    unused = listener.port();
  }
  struct Case {
    const char* host;
    uint16_t port;
    std::string event;
  };
  const Case cases[] = {
      {"127.0.0.1", unused, "ended NSPOSIX " + std::to_string(ECONNREFUSED)},
      {"localhost", unused, "ended NSPOSIX " + std::to_string(ECONNREFUSED)},
      {"no-such-host.invalid", 80, "ended VELSocket 2"},
  };
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.host);
    Client client;
    EXPECT_TRUE(client.socket->connectToHost(entry.host, entry.port, seconds(600)));
    client.socket->writeData(VELData(std::string("x")), seconds(30), 1);
    EXPECT_EQ(client.events->await("ended"), entry.event);
    EXPECT_EQ(client.events->all().size(), 1U);
  }
}

TEST(SocketConnecting, RefusesWhatCannotBegin) {
  PeerListener listener;
  Client client;
  VELError error;
  EXPECT_FALSE(client.socket->connectToHost("", 80, seconds(1), &error));
  EXPECT_EQ(error.code(), kVELSocketBadParameter);
  EXPECT_FALSE(client.socket->connectToHost("localhost", 0, seconds(1), &error));
  EXPECT_EQ(error.code(), kVELSocketBadParameter);
  ASSERT_TRUE(client.socket->connectToHost("127.0.0.1", listener.port(), seconds(30)));
  EXPECT_FALSE(client.socket->connectToHost("127.0.0.1", listener.port(), seconds(1), &error));
  EXPECT_EQ(error.code(), kVELSocketBadConfiguration);
  EXPECT_FALSE(client.socket->acceptOnInterface("lo", 0, &error));
  EXPECT_NE(client.events->await("connected"), "");
}

TEST(SocketConnecting, GivesUpInTime) {
  SilentListener silent;
  Client client;
  ASSERT_TRUE(client.socket->connectToHost("127.0.0.1", silent.listener.port(), seconds(100)));
  letPass(*client.queue, seconds(90));
  EXPECT_EQ(client.events->all(), std::vector<std::string>());
  passTime(*client.queue, seconds(11));
  EXPECT_EQ(client.events->await("ended"), "ended VELSocket 3");
  EXPECT_EQ(client.events->all().size(), 1U);
}

TEST(SocketConnecting, MayBeDisconnectedMeanwhile) {
  SilentListener silent;
  for (const bool gently : {false, true}) {
    for (const bool drops : {false, true}) {
      Client client;
      ASSERT_TRUE(client.socket->connectToHost("127.0.0.1", silent.listener.port(), seconds(100)));
      if (drops) client.queue->sync([] {});
      gently ? client.socket->disconnectAfterWriting() : client.socket->disconnect();
      if (drops) client.socket.reset();
      EXPECT_EQ(client.events->await("ended"), "ended");
    }
  }
}

// The attempt, its time-out and what is queued go along to another queue on another loop.
TEST(SocketConnecting, MayMoveMeanwhile) {
  const auto loops = std::make_shared<VELEventLoops>(2);
  SilentListener silent;
  for (const bool succeeds : {true, false}) {
    PeerListener listener;
    const Client first(loops);
    const Client second(loops);
    const auto socket = first.socket;
    const uint16_t port = succeeds ? listener.port() : silent.listener.port();
    ASSERT_TRUE(socket->connectToHost("127.0.0.1", port, seconds(100)));
    socket->writeData(VELData(std::string("ping")), seconds(30), 1);
    socket->setDelegate(second.events, second.queue);
    if (succeeds) {
      // Who had connected and written already may have told the first delegate.
      socket->writeData(VELData(std::string("pong")), seconds(30), 2);
      EXPECT_EQ(listener.accept().receive(8), "pingpong");
      EXPECT_NE(second.events->await("wrote 2"), "");
    } else {
      second.queue->sync([] {});
      passTime(*second.queue, seconds(101));
      EXPECT_EQ(second.events->await("ended"), "ended VELSocket 3");
      EXPECT_TRUE(first.events->all().empty());
    }
  }
}

}  // namespace
}  // namespace vel::test
