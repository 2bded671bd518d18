// How a session ends: by either side, by a failure, by a host's mistake; and what stays until then.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "corvane/error.h"
#include "corvane/server.h"
#include "support/count.h"
#include "support/fake_socket.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/stopped_clock.h"
#include "websocket/plain_frame.h"
#include "websocket/session_wire.h"

namespace vel::test {
namespace {

using Lines = std::vector<std::string>;

TEST(SessionEnding, SendsOneCloseFrameAndDoesNotWaitForTheAnswer) {
  struct Case {
    int64_t code;
    std::optional<std::string> reason;
    std::string payload;
    std::string event;
  };
  const std::string long_reason(300, 'r');
  const Case cases[] = {
      {1000, std::nullopt, closing(1000), "1000"},
      {4000, "bye", closing(4000, "bye"), "4000 bye"},
      {4000, "", closing(4000), "4000"},
      {65536 + 1001, std::nullopt, closing(1001), "66537"},
      {-1, std::nullopt, closing(65535), "-1"},
      {4000, long_reason, closing(4000, long_reason), "4000 " + long_reason},
  };
  for (const Case& entry : cases) {
    SessionWire wire;
    wire.session().closeWithCode(entry.code, entry.reason);
    EXPECT_EQ(wire.session().state(), VELWebSocketState::kOpen);
    wire.session().close();
    EXPECT_EQ(wire.sent(), Lines{"8 " + entry.payload});
    EXPECT_EQ(wire.events().lines, Lines{"closed VELWebSocket " + entry.event});
    EXPECT_EQ(wire.session().state(), VELWebSocketState::kClosed);
    EXPECT_EQ(wire.session().socket(), nullptr);
    // The peer's answer does not make the system reset the connection.
    wire.send(masked(8, entry.payload));
    EXPECT_TRUE(wire.isClosed());
  }
}

TEST(SessionEnding, ReportsAPeerThatVanishesAtAnyStage) {
  const std::string bytes = bytesOf({1, std::string(300, 't')});
  for (const bool is_reset : {true, false}) {
    for (const size_t length : {0U, 1U, 2U, 3U, 5U, 8U, 100U}) {
      SessionWire wire;
      wire.send(bytes.substr(0, length));
      is_reset ? wire.peer().reset() : wire.peer().finishSending();
      EXPECT_EQ(wire.events().lines, Lines{"closed VELWebSocket 1006"}) << length;
    }
  }
}

TEST(SessionEnding, GivesUpWritesThatNobodyTakes) {
  StoppedClock clock;
  SessionWire wire(true, 100);
  wire.session().sendMessage(std::string(200, 'a'));
  wire.loops().run();
  clock.advance(std::chrono::seconds(29), wire.loops());
  EXPECT_EQ(wire.events().lines, Lines{});
  clock.advance(std::chrono::seconds(2), wire.loops());
  EXPECT_EQ(wire.events().lines, Lines{"closed VELSocket 5"});
}

TEST(SessionEnding, ByAnExceptionOfTheDelegateOrOfWorkOnItsQueue) {
  LogCapture log;
  SessionWire throwing;
  throwing.events().reaction = [](VELWebSocket&, const VELWebSocketMessage&) {
    throw std::runtime_error("mistake");
  };
  throwing.send(masked(1, "a") + masked(1, "b"));
  EXPECT_EQ(throwing.events().lines, (Lines{"text a", "closed VELWebSocket 1006"}));
  SessionWire other;
  other.session().delegateQueue()->async([] { throw std::runtime_error("mistake"); });
  other.loops().run();
  EXPECT_EQ(other.events().lines, Lines{"closed VELWebSocket 1006"});
}

// A queue that several sessions share belongs to none of them.
TEST(SessionEnding, LeavesOtherSessionsOfTheQueueAlone) {
  LogCapture log;
  ManualLoops loops;
  const auto queue = std::make_shared<VELSerialQueue>("shared", loops.loops());
  std::vector<std::shared_ptr<SessionEvents>> events;
  std::vector<std::shared_ptr<FakeSocket>> sockets;
  std::vector<std::shared_ptr<VELWebSocket>> sessions;
  for (int i = 0; i < 2; ++i) {
    events.push_back(std::make_shared<SessionEvents>());
    sockets.push_back(std::make_shared<FakeSocket>());
    sessions.push_back(VELWebSocket::webSocketWithSocket(sockets.back(), "chat", queue, false));
    sessions.back()->setDelegate(events.back());
    sessions.back()->start();
  }
  events[0]->reaction = [](VELWebSocket&, const VELWebSocketMessage&) {
    throw std::runtime_error("mistake");
  };
  EXPECT_EQ(sessions[0]->protocol(), "chat");
  EXPECT_EQ(queue->specific(sessions[0].get()), sessions[0].get());
  EXPECT_EQ(queue->specific(sessions[1].get()), sessions[1].get());
  const auto key = sessions[1].get();
  sockets[0]->receive(unmasked(1, "throw"));
  sockets[1]->receive(unmasked(1, "fine"));
  EXPECT_EQ(events[0]->lines, (Lines{"text throw", "closed VELWebSocket 1006"}));
  EXPECT_EQ(events[1]->lines, (Lines{"text fine"}));
  // Without anybody to hold it an open session disconnects, but sends what it was given.
  sessions[1]->sendMessage("last");
  sessions.clear();
  loops.run();
  sockets[1]->settle();
  EXPECT_TRUE(sockets[1]->wasDisconnectedAfterWriting());
  EXPECT_EQ(sockets[1]->output().size(), 10U);
  EXPECT_EQ(queue->specific(key), nullptr);
  loops.run();
}

TEST(SessionEnding, TellsItsServer) {
  enum class Way { kKill, kDrain, kPeer, kAtOnce };
  for (const Way way : {Way::kKill, Way::kDrain, Way::kPeer, Way::kAtOnce}) {
    StoppedClock clock;
    SessionWire wire;
    const auto server = std::make_shared<VELServer>(nullptr, wire.loops().loops());
    wire.session().setServer(server);
    server->addConnection(wire.session().shared_from_this());
    wire.drop();
    wire.send(masked(1, "a"));
    EXPECT_EQ(server->numberOfConnections(), 1U);
    Lines sent;
    bool is_drained = false;
    if (way == Way::kKill) server->kill();
    if (way == Way::kDrain) {
      server->drain(std::chrono::seconds(5), [&] { is_drained = true; });
    }
    if (way == Way::kAtOnce) server->connections().front()->closeAtOnce();
    if (way == Way::kPeer) wire.send(masked(8, closing(1001)));
    wire.loops().run();
    const std::string status = way == Way::kKill ? "1000" : way == Way::kAtOnce ? "1006" : "1001";
    EXPECT_EQ(wire.events().lines, (Lines{"text a", "closed VELWebSocket " + status}));
    EXPECT_EQ(server->numberOfConnections(), 0U);
    EXPECT_EQ(is_drained, way == Way::kDrain);
    clock.advance(std::chrono::seconds(6), wire.loops());
  }
}

TEST(SessionEnding, IsNotHeldUpByTheServersEnd) {
  SessionWire wire;
  auto server = std::make_shared<VELServer>(nullptr, wire.loops().loops());
  wire.session().setServer(server);
  server.reset();
  wire.session().close();
  wire.loops().run();
  EXPECT_EQ(wire.events().lines, Lines{"closed VELWebSocket 1000"});
}

TEST(SessionEnding, RefusesToBeMadeOfNothing) {
  try {
    VELWebSocket session;
    FAIL();
  } catch (const VELException& exception) {
    EXPECT_EQ(exception.name(), VELInvalidArgumentException);
    EXPECT_EQ(exception.reason(), "WebSockets should not be initialized directly");
  }
}

// Bytes that were announced cost nothing before they come, and memory that runs out ends one session.
TEST(SessionEnding, TakesNoMemoryForWhatWasOnlyAnnounced) {
  const std::string huge("\x82\xFF\x40\0\0\0\0\0\0\0key!and", 17);
  const std::string warm = masked(2, std::string(60'000, 'w'));
  const std::string much = huge + std::string(40'000, 'x');
  for (const bool has_come : {false, true}) {
    SessionWire wire;
    Count is_ready;
    Count is_armed;
    std::thread sender([&] {
      wire.send(warm);
      if (has_come) wire.send(much);
      is_ready.add();
      EXPECT_TRUE(is_armed.reaches(1));
      wire.send(has_come ? std::string_view("x") : huge);
    });
    EXPECT_TRUE(is_ready.reaches(1));
    const ArmedFault fault(Fault::kAllocation, 1, 0);
    is_armed.add();
    sender.join();
    EXPECT_EQ(fault.hasStruck(), has_come);
    EXPECT_EQ(wire.events().lines.back() == "closed NSPOSIX 12", has_come);
  }
}

}  // namespace
}  // namespace vel::test
