// What a connection does when time goes by: each time-out, right before it is due and right after.
#include <string>
#include <vector>

#include "support/held_answers.h"
#include "support/memory_wire.h"
#include "support/stopped_clock.h"
#include "support/test_server.h"
#include "wire/case_routes.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kTick{1};
// No deadline is met later than this.
constexpr milliseconds kSlack{50};

class Time : public ::testing::Test {
 protected:
  explicit Time(Transport transport = Transport::kMemory)
      : server_({.transport = transport}, [this](VELConfiguration& configuration) {
          configuration.addRoute(blockRoute("/held", held_.handler()));
          addCaseRoutes(configuration);
        }) {}

  /// Lets time go by and tells whether `client` is still connected then.
  bool isOpenAfter(WireClient& client, std::chrono::nanoseconds time) {
    clock_.advance(time, server_.manualLoops());
    return static_cast<MemoryWire&>(client.wire()).take(received_);
  }
  void expectClosedAfter(WireClient& client, milliseconds time) {
    EXPECT_TRUE(isOpenAfter(client, time - kTick)) << "too early";
    EXPECT_FALSE(isOpenAfter(client, kTick + kSlack)) << "too late";
    EXPECT_TRUE(server_.waitForConnections(0));
  }

  StoppedClock clock_;
  HeldAnswers held_;
  TestServer server_;
  std::string received_;
};

TEST_F(Time, IsLimitedWhileAHeadIsRead) {
  struct Case {
    std::string name;
    std::string sent;
    milliseconds closed_after;
    // Sent one second before the time is up, which does not change it.
    std::string sent_late = {};
  };
  const std::string get = head({"GET /text HTTP/1.1"});
  const std::vector<Case> cases = {
      {"nothing", "", seconds(30)},
      {"a part of a line", "GET /te", seconds(30), "xt"},
      {"a line", "GET /text HTTP/1.1\r\n", seconds(30), "Host: a"},
      {"an answer", get, seconds(15)},
      {"a part of a line after an answer", get, seconds(15), "GET /text"},
      {"a line after an answer", get + "GET /text HTTP/1.1\r\n", seconds(30), "Host"},
      {"404 and a body that nobody reads",
       head({"PUT /none HTTP/1.1", "Content-Length: 9"}) + "abc", seconds(15)},
  };
  for (const Case& test_case : cases) {
    SCOPED_TRACE(test_case.name);
    const auto client = server_.connect();
    client->send(test_case.sent);
    EXPECT_TRUE(isOpenAfter(*client, test_case.closed_after - seconds(1)));
    client->send(test_case.sent_late);
    expectClosedAfter(*client, seconds(1));
  }
}

TEST_F(Time, IsLimitedForHeadsThatNobodyTakes) {
  const auto client = server_.connect();
  std::string requests;
  // More answers than the pipe holds.
  for (int i = 0; i < 5000; ++i) requests += head({"GET /text HTTP/1.1"});
  client->send(requests);
  // Nothing is received here: the pipe stays full.
  clock_.advance(seconds(30) - kTick, server_.manualLoops());
  EXPECT_EQ(server_.server().numberOfConnections(), 1U);
  clock_.advance(kTick + kSlack, server_.manualLoops());
  EXPECT_EQ(server_.server().numberOfConnections(), 0U);
}

TEST_F(Time, IsNotLimitedForBodiesThatNobodyTakes) {
  const auto client = server_.connect();
  client->send(head({"GET /responses/data-large HTTP/1.1"}));
  clock_.advance(hours(5), server_.manualLoops());
  EXPECT_EQ(client->readAnswer().body.size(), 1'000'000U);
  // The idle time begins once the answer has left.
  expectClosedAfter(*client, seconds(15));
}

TEST_F(Time, IsLimitedForLingering) {
  const auto client = server_.connect();
  client->send("nonsense\r\nmore of it");
  EXPECT_EQ(client->readHead().status, 400);
  // Closed for the server and the client, but not reset under what the client still sends.
  EXPECT_EQ(client->readToEnd(), "");
  EXPECT_TRUE(client->send("and more"));
  clock_.advance(seconds(2) + kSlack, server_.manualLoops());
  EXPECT_FALSE(client->send("too late"));
}

TEST_F(Time, IsLimitedForDraining) {
  const auto client = server_.connect();
  client->send(head({"GET /held HTTP/1.1"}));
  const VELResponseHandler never_called = held_.take();
  server_.server().drain(seconds(10));
  expectClosedAfter(*client, seconds(10));
}

class HandshakeTime : public Time {
 protected:
  HandshakeTime() : Time(Transport::kMemoryTLSByBytes) {}
};

TEST_F(HandshakeTime, IsNotLimitedForTheRestOfABodyOnceItsHeadIsTaken) {
  const auto client = server_.connect();
  client->send(head({"GET /responses/data-large HTTP/1.1"}));
  clock_.advance(hours(5), server_.manualLoops());
  EXPECT_EQ(client->readAnswer().body.size(), 1'000'000U);
}

TEST_F(HandshakeTime, IsLimited) {
  for (const std::string sent : {"", "\x16\x03\x01\x02"}) {
    const auto client = server_.connectPlain();
    client->send(sent);
    expectClosedAfter(*client, seconds(30));
  }
}

}  // namespace
}  // namespace vel::test
