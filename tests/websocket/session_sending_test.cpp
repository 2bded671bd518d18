// What a session sends: messages of every kind, from every thread, whole and in order.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "corvane/error.h"
#include "support/count.h"
#include "support/socket_events.h"
#include "websocket/plain_frame.h"
#include "websocket/session_wire.h"

namespace vel::test {
namespace {

using Lines = std::vector<std::string>;

TEST(SessionSending, WritesOneFrameForEachMessage) {
  for (const bool is_server : {true, false}) {
    SessionWire wire(is_server);
    VELWebSocket& session = wire.session();
    session.sendMessage("text");
    session.sendMessage(std::string("another"));
    session.sendMessage(VELData(std::string("bytes")));
    session.sendMessage(nullptr);
    session.sendMessage(static_cast<const char*>(nullptr));
    session.sendMessage(VELWebSocketMessage::textMessage("framed"));
    session.sendMessage(VELWebSocketMessage::binaryMessage(VELData()));
    session.sendMessage("end");
    EXPECT_EQ(wire.sent(),
              (Lines{"1 text", "1 another", "2 bytes", "2 ", "2 ", "1 framed", "2 ", "1 end"}));
    session.sendMessage(nullptr);
    EXPECT_EQ(wire.sentBytes().size(), is_server ? 2U : 6U);
  }
}

TEST(SessionSending, MasksEachFrameWithAKeyOfItsOwn) {
  SessionWire wire(false);
  for (int i = 0; i < 8; ++i) wire.session().sendMessage(VELData(std::string(8, '\0')));
  const std::string bytes = wire.sentBytes();
  std::map<std::string, int> keys;
  for (size_t at = 0; at < bytes.size(); at += 14) ++keys[bytes.substr(at + 2, 4)];
  EXPECT_GE(keys.size(), 7U);
}

TEST(SessionSending, RefusesTextsThatAreNotUTF8) {
  SessionWire wire;
  EXPECT_THROW(wire.session().sendMessage("\xC3"), VELException);
  EXPECT_THROW(VELWebSocketMessage::textMessage("\xC3"), VELException);
  EXPECT_THROW(wire.session().closeWithCode(1000, "\xC3"), VELException);
  wire.session().sendMessage(VELData(std::string("\xC3")));
  EXPECT_EQ(wire.sent(), Lines{"2 \xC3"});
}

// Messages of all sizes, lent by the delegate's call or owned, over a pipe that takes little at once.
TEST(SessionSending, SendsEverythingInOrderHoweverLittleIsTaken) {
  for (const bool is_server : {true, false}) {
    SessionWire wire(is_server, 10'000);
    const VELWebSocketMessage shared = VELWebSocketMessage::textMessage(std::string(500, 's'));
    const VELWebSocketMessage large =
        VELWebSocketMessage::binaryMessage(VELData(std::string(30'000, 'l')));
    wire.events().reaction = [&](VELWebSocket& session, const VELWebSocketMessage& message) {
      session.sendMessage(shared);
      session.sendMessage(message);
      session.sendMessage("a");
      session.sendMessage(large);
      session.sendMessage(shared);
      session.sendMessage(VELData(std::string(9'000, 'd')));
      session.sendMessage(message);
    };
    Lines expected;
    std::string received;
    for (const size_t length : {5U, 9000U, 20000U, 80000U}) {
      const std::string payload(length, 'p');
      const std::string echo = "2 " + payload;
      const std::string framed = "1 " + std::string(500, 's');
      for (const std::string& line :
           {framed, echo, std::string("1 a"), "2 " + std::string(30'000, 'l'), framed,
            "2 " + std::string(9'000, 'd'), echo}) {
        expected.push_back(line);
      }
      wire.send(bytesOf({2, payload, is_server}));
      for (std::string more = wire.sentBytes(); !more.empty(); more = wire.sentBytes()) {
        received += more;
      }
    }
    EXPECT_TRUE(framesIn(received) == expected);
  }
}

// Everybody shares one frame, also who cannot take it at once and who needs it masked.
TEST(SessionSending, SendsOneMessageToMany) {
  const VELWebSocketMessage message = VELWebSocketMessage::textMessage("news");
  SessionWire idle;
  SessionWire busy;
  SessionWire slow(true, 3);
  SessionWire client(false);
  busy.session().sendMessage("before");
  for (SessionWire* wire : {&idle, &busy, &slow, &client}) {
    wire->session().sendMessage(message);
    wire->session().sendMessage(message);
  }
  EXPECT_EQ(idle.sent(), (Lines{"1 news", "1 news"}));
  EXPECT_EQ(busy.sent(), (Lines{"1 before", "1 news", "1 news"}));
  EXPECT_EQ(client.sent(), (Lines{"1 news", "1 news"}));
  std::string received;
  for (std::string more = slow.sentBytes(); !more.empty(); more = slow.sentBytes()) {
    EXPECT_LE(more.size(), 3U);
    received += more;
  }
  EXPECT_EQ(framesIn(received), (Lines{"1 news", "1 news"}));
}

TEST(SessionSending, DropsWhatComesAfterTheClose) {
  SessionWire wire;
  wire.session().sendMessage("before");
  wire.session().close();
  wire.session().sendMessage("after");
  EXPECT_EQ(wire.sent(), (Lines{"1 before", "8 " + closing(1000)}));
  wire.session().sendMessage("much later");
  EXPECT_TRUE(wire.isClosed());
}

// Threads send while the session echoes and closes: each one's messages come whole and in its order.
TEST(SessionSending, KeepsTheOrderOfEveryThread) {
  const auto loops = std::make_shared<VELEventLoops>(2);
  for (int round = 0; round < 10; ++round) {
    ListeningSocket listening(loops);
    SocketPeer peer = SocketPeer::connectedTo(listening.port());
    const auto session =
        VELWebSocket::webSocketWithSocket(listening.accepted(), std::nullopt, nullptr, true);
    const auto events = std::make_shared<SessionEvents>();
    Count messages;
    events->reaction = [&](VELWebSocket& receiver, const VELWebSocketMessage& message) {
      receiver.sendMessage(message);
      messages.add();
    };
    session->setDelegate(events);
    session->start();
    for (int i = 0; i < 100; ++i) peer.send(masked(1, "e " + std::to_string(i)));
    std::vector<std::thread> threads;
    for (const char name : {'a', 'b', 'c'}) {
      threads.emplace_back([&, name] {
        for (int i = 0; i < 100; ++i) {
          session->sendMessage(std::string(1, name) + " " + std::to_string(i));
        }
      });
    }
    if (round % 2 == 0) {
      EXPECT_TRUE(messages.reaches(100));
      for (std::thread& thread : threads) thread.join();
    }
    session->close();
    if (round % 2 != 0) {
      for (std::thread& thread : threads) thread.join();
    }
    Lines lines = framesIn(peer.receiveAll());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "8 " + closing(1000));
    lines.pop_back();
    std::map<char, int> next;
    for (const std::string& line : lines) {
      EXPECT_EQ(line.substr(2), line.substr(2, 2) + std::to_string(next[line[2]]++));
    }
    EXPECT_TRUE(lines.size() == 400 || round % 2 != 0);
    peer.close();
    // What was kept is looked at once nothing can come any more.
    const auto is_closed = [&] { return session->state() == VELWebSocketState::kClosed; };
    while (!is_closed()) session->delegateQueue()->sync([] {});
    session->delegateQueue()->sync([] {});
    EXPECT_EQ(events->lines.back(), "closed VELWebSocket 1000");
  }
}

}  // namespace
}  // namespace vel::test
