// What a session makes of the frames that come, however they are cut.
#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/stopped_clock.h"
#include "websocket/plain_frame.h"
#include "websocket/session_wire.h"

namespace vel::test {
namespace {

struct ReadingCase {
  std::string name;
  std::vector<PlainFrame> frames;
  std::vector<std::string> events;
  std::vector<std::string> sent;
};

PlainFrame fragment(uint8_t opcode, std::string payload) { return {opcode, payload, true, false}; }

// The case of a session that ends by itself after `frames`.
ReadingCase refusal(std::string name, std::vector<PlainFrame> frames, uint16_t code,
                    const std::string& reason) {
  return {name,
          std::move(frames),
          {"closed VELWebSocket " + std::to_string(code) + " " + reason},
          {"8 " + closing(code, reason)}};
}

std::vector<ReadingCase> readingCases() {
  const std::string long_text(300, 'x');
  const std::string euro = "\xE2\x82\xAC";
  const std::string fragments = "Unexpected opcode: 0";
  std::vector<ReadingCase> cases = {
      {"texts", {{1, "hello"}, {1, ""}, {1, euro}}, {"text hello", "text ", "text " + euro}, {}},
      {"bytes", {{2, euro.substr(1)}, {2, ""}}, {"binary " + euro.substr(1), "binary "}, {}},
      {"longer lengths",
       {{1, long_text}, {2, "ab", true, true, 0, 8}},
       {"text " + long_text, "binary ab"},
       {}},
      {"reserved bits", {{1, "a", true, true, 7}}, {"text a"}, {}},
      {"pings",
       {{9, "p"}, {1, "a"}, {9, ""}, {9, long_text}},
       {"text a"},
       {"10 p", "10 ", "10 " + long_text}},
      {"pongs", {{10, "p"}, {10, long_text}, {1, "a"}}, {"text a"}, {}},
      refusal("fragments", {fragment(1, "a"), {0, "b"}, {1, "late"}}, 1002, fragments),
      {"ping among fragments",
       {fragment(2, "a"), {9, "p"}, fragment(0, "b"), {0, ""}},
       {"closed VELWebSocket 1002 " + fragments},
       {"10 p", "8 " + closing(1002, fragments)}},
      refusal("text inside a message", {fragment(1, "a"), {1, "b"}}, 1002,
              "All data frames after the initial data frame must have opcode 0"),
      refusal("text that is not UTF-8", {{1, "a" + euro.substr(1)}, {1, "late"}}, 1007,
              "Invalid UTF-8 text frame data"),
      refusal("text that ends too early", {{1, euro.substr(0, 2)}}, 1007,
              "Invalid UTF-8 text frame data"),
      {"close", {{8, ""}, {1, "late"}}, {"closed VELWebSocket 1005"}, {"8 "}},
      refusal("close of a byte", {{8, "\3"}}, 1002, "Close frame payload must be at least 2 bytes"),
      {"close with status",
       {{8, closing(4711)}},
       {"closed VELWebSocket 4711"},
       {"8 " + closing(4711)}},
      {"close with status 0", {{8, closing(0)}}, {"closed VELWebSocket 0"}, {"8 " + closing(0)}},
      {"close with reason",
       {{8, closing(1000, "bye " + euro)}},
       {"closed VELWebSocket 1000 bye " + euro},
       {"8 " + closing(1000, "bye " + euro)}},
      {"close of 126 bytes",
       {{8, closing(1001, std::string(124, 'r'))}},
       {"closed VELWebSocket 1001 " + std::string(124, 'r')},
       {"8 " + closing(1001, std::string(124, 'r'))}},
      refusal("close reason that is not UTF-8", {{8, closing(1000, "\xFF")}}, 1002,
              "Close reason MUST be valid UTF-8"),
  };
  for (const uint8_t opcode : std::to_array<uint8_t>({3, 7, 11, 15})) {
    cases.push_back(refusal("opcode " + std::to_string(opcode), {{opcode, "ab"}}, 1002,
                            "Unexpected opcode: " + std::to_string(opcode)));
  }
  return cases;
}

TEST(SessionReading, IsTheSameHoweverTheFramesAreCut) {
  for (const bool is_server : {true, false}) {
    for (const ReadingCase& entry : readingCases()) {
      std::string bytes;
      for (PlainFrame frame : entry.frames) {
        frame.isMasked = is_server;
        bytes += bytesOf(frame);
      }
      for (size_t split = 0; split <= bytes.size(); ++split) {
        SCOPED_TRACE(entry.name + (is_server ? ", server" : ", client") + ", split at " +
                     std::to_string(split));
        SessionWire wire(is_server);
        wire.send(std::string_view(bytes).substr(0, split));
        wire.send(std::string_view(bytes).substr(split));
        ASSERT_EQ(wire.events().lines, entry.events);
        ASSERT_EQ(wire.sent(), entry.sent);
      }
      SessionWire wire(is_server);
      for (const char byte : bytes) wire.send({&byte, 1});
      ASSERT_EQ(wire.events().lines, entry.events) << entry.name << ", byte by byte";
    }
  }
}

TEST(SessionReading, RefusesWrongMasksOfAnyFrameBeforeItsLengthHasCome) {
  for (const bool is_server : {true, false}) {
    for (const uint8_t opcode : std::to_array<uint8_t>({1, 9, 8})) {
      SessionWire wire(is_server);
      wire.send({bytesOf({opcode, std::string(300, 'p'), !is_server}).substr(0, 2)});
      const std::string reason = is_server ? "All data frames sent from a client must be masked"
                                           : "All data frames sent to a client must not be masked";
      EXPECT_EQ(wire.events().lines,
                std::vector<std::string>{"closed VELWebSocket 1002 " + reason});
      EXPECT_EQ(wire.sent(), std::vector<std::string>{"8 " + closing(1002, reason)});
    }
  }
}

TEST(SessionReading, TakesLargeMessagesInManyPiecesAndGoesOnBehindThem) {
  for (const size_t length : {16384U, 40000U, 65536U, 70000U, 3000000U}) {
    std::string payload(length, '\0');
    for (size_t i = 0; i < length; ++i) payload[i] = static_cast<char>(i * 31 + i / 251);
    const std::string bytes = masked(1, "first") + masked(2, payload) + masked(1, "last");
    for (const size_t piece : {size_t{1000}, size_t{30'000}, bytes.size()}) {
      SessionWire wire;
      for (size_t at = 0; at < bytes.size(); at += piece) {
        wire.send(std::string_view(bytes).substr(at, piece));
      }
      const std::vector<std::string> expected{"text first", "binary " + payload, "text last"};
      ASSERT_TRUE(wire.events().lines == expected) << length << " in pieces of " << piece;
    }
  }
}

TEST(SessionReading, DoesTheWorkOfACallBeforeTheNextFrame) {
  struct Case {
    std::function<void(VELWebSocket&)> reaction;
    std::vector<std::string> events;
    std::vector<std::string> sent;
  };
  const auto send = [](const char* text) {
    return [=](VELWebSocket& session) { session.sendMessage(text); };
  };
  const Case cases[] = {
      {send("a"), {"text 1", "text 2"}, {"1 a", "10 p", "1 a"}},
      {[](VELWebSocket& session) {
         session.closeWithCode(4000);
         session.sendMessage("late");
         EXPECT_EQ(session.state(), VELWebSocketState::kOpen);
       },
       {"text 1", "closed VELWebSocket 4000"},
       {"8 " + closing(4000)}},
      {[](VELWebSocket& session) {
         session.sendMessage("a");
         session.sendFrameWithOpcode(9, VELData(std::string("ping")));
         session.delegateQueue()->async([&] { session.sendMessage("d"); });
         session.sendMessage("b");
       },
       {"text 1", "text 2"},
       {"1 a", "9 ping", "1 b", "10 p", "1 a", "9 ping", "1 b", "1 d", "1 d"}},
      {[](VELWebSocket& session) { session.closeAtOnce(); },
       {"text 1", "closed VELWebSocket 1006"},
       {}},
      {[](VELWebSocket& session) { session.socket()->disconnect(); },
       {"text 1", "closed VELWebSocket 1006"},
       {}},
      {[](VELWebSocket& session) { session.setDelegate({}); }, {"text 1"}, {"10 p"}},
  };
  for (const Case& entry : cases) {
    SessionWire wire;
    wire.events().reaction = [&](VELWebSocket& session, const VELWebSocketMessage&) {
      entry.reaction(session);
    };
    wire.send(masked(1, "1") + masked(9, "p") + masked(1, "2"));
    EXPECT_EQ(wire.events().lines, entry.events);
    EXPECT_EQ(wire.sent(), entry.sent);
  }
}

// Messages are lent; copies are whole even after the bytes have been used for others.
TEST(SessionReading, LendsMessagesWhoseCopiesStay) {
  SessionWire wire;
  std::vector<VELWebSocketMessage> copies;
  wire.events().reaction = [&](VELWebSocket&, const VELWebSocketMessage& message) {
    copies.push_back(message);
  };
  wire.send(masked(1, "one") + masked(2, "two"));
  wire.send(masked(1, "XXX") + masked(2, "YYY"));
  ASSERT_EQ(copies.size(), 4U);
  EXPECT_TRUE(copies[0].isText());
  EXPECT_EQ(copies[0].text(), "one");
  EXPECT_FALSE(copies[1].isText());
  EXPECT_EQ(copies[1].data(), VELData(std::string("two")));
}

TEST(SessionReading, WaitsHalfAMinuteForEachMissingPartAndForeverForAFrame) {
  using std::chrono::seconds;
  const std::string frame = bytesOf({1, std::string(300, 't')});
  struct Case {
    const char* name;
    std::vector<std::string> pieces;  // one every 29 seconds
    bool endsLater;
  };
  const Case cases[] = {
      {"nothing", {"", "", "", ""}, false},
      {"whole frames", {frame, "", "", frame, "", ""}, false},
      {"the first byte", {frame.substr(0, 1), "", "", ""}, false},
      {"the length", {frame.substr(0, 2), ""}, true},
      {"part of the length", {frame.substr(0, 2), frame.substr(2, 1)}, true},
      {"the key", {frame.substr(0, 2), frame.substr(2, 2), ""}, true},
      {"the payload", {frame.substr(0, 2), frame.substr(2, 2), frame.substr(4, 4), ""}, true},
      {"the rest of a message", {bytesOf(fragment(1, "a")), bytesOf(fragment(0, "b")), ""}, true},
      {"a ping in between", {bytesOf(fragment(1, "a")), masked(9, ""), "", ""}, false},
  };
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.name);
    StoppedClock clock;
    SessionWire wire;
    for (const std::string& piece : entry.pieces) {
      for (const std::string& line : wire.events().lines) EXPECT_EQ(line.find("closed"), line.npos);
      wire.send(piece);
      clock.advance(seconds(29), wire.loops());
    }
    const bool has_ended =
        !wire.events().lines.empty() && wire.events().lines.back() == "closed VELSocket 4";
    EXPECT_EQ(has_ended, entry.endsLater);
  }
}

TEST(SessionReading, BeginsOnceHoweverOftenItIsStarted) {
  SessionWire wire;
  wire.session().start();
  wire.send(masked(1, "a") + masked(1, "b"));
  wire.session().start();
  wire.send(masked(1, "c"));
  EXPECT_EQ(wire.events().lines, (std::vector<std::string>{"text a", "text b", "text c"}));
}

// However its answers come about, a client that takes none of them is not read from after some 4 MiB, and as soon
// as it takes them everything comes, in order.
TEST(SessionReading, StopsWhileAClientTakesNothing) {
  constexpr size_t kFrame = 4096;
  constexpr size_t kMost = 4 * 1024 * 1024;
  struct Case {
    const char* name;
    uint8_t opcode;
    std::function<void(VELWebSocket&, const VELWebSocketMessage&)> reaction;
  };
  const Case cases[] = {
      {"pongs", 9, nullptr},
      {"echoes", 2,
       [](VELWebSocket& session, const VELWebSocketMessage& message) {
         session.sendMessage(message);
       }},
      {"echoes that are posted", 2,
       [](VELWebSocket& session, const VELWebSocketMessage& message) {
         std::thread([&] { session.sendMessage(nullptr); }).join();
         session.sendMessage(message);
       }},
  };
  for (const Case& entry : cases) {
    for (const bool is_taken : {true, false}) {
      SCOPED_TRACE(entry.name);
      StoppedClock clock;
      SessionWire wire(true, 16 * kFrame);
      wire.events().reaction = entry.reaction;
      size_t count = 0;
      const auto flood = [&] {
        std::string payload(kFrame - 8, 'f');
        for (; count < 10'000; ++count) {
          payload.replace(0, 6, std::to_string(100'000 + count));
          wire.send(masked(entry.opcode, payload));
        }
      };
      EXPECT_THROW(flood(), std::runtime_error);  // nobody takes the bytes
      EXPECT_GT(wire.session().socket()->unsentLength(), kMost);
      EXPECT_LT(wire.session().socket()->unsentLength(), kMost + 2 * kFrame);
      if (!is_taken) {
        clock.advance(std::chrono::seconds(31), wire.loops());
        EXPECT_EQ(wire.events().lines.back(), "closed VELSocket 5");
        continue;
      }
      std::string received;
      for (std::string more = wire.sentBytes(); !more.empty(); more = wire.sentBytes()) {
        received += more;
      }
      wire.send(masked(8, ""));
      received += wire.sentBytes();
      size_t next = 100'000;
      for (const std::string& frame : framesIn(received)) {
        if (frame.size() < kFrame / 2) continue;
        EXPECT_EQ(frame.substr(frame.find(' ') + 1, 6), std::to_string(next++));
      }
      EXPECT_EQ(next, 100'000 + count);
      EXPECT_EQ(wire.events().lines.back(), "closed VELWebSocket 1005");
    }
  }
}

// Else two ends that have much for each other would wait for each other.
TEST(SessionReading, GoesOnWhileAServerTakesNothing) {
  SessionWire wire(false);
  wire.session().sendMessage(VELData(std::string(8 * 1024 * 1024, 'm')));
  wire.send(unmasked(1, "a"));
  wire.send(unmasked(1, "b"));
  EXPECT_EQ(wire.events().lines, (std::vector<std::string>{"text a", "text b"}));
}

}  // namespace
}  // namespace vel::test
