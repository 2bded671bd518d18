// The life of a connection: start, keep-alive, idle time, the ways in which it ends, what hosts
// see.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "corvane/error.h"
#include "corvane/http_connection.h"
#include "corvane/responses.h"
#include "http/connection_engine.h"
#include "support/digits_response.h"
#include "support/fake_connection.h"

namespace vel::test {
namespace {

using testing::ElementsAre;
using testing::ThrowsMessage;

constexpr char kGet[] = "GET / HTTP/1.1\r\n\r\n";

TEST(HTTPConnection, IsNotMadeWithoutASocket) {
  EXPECT_THAT([] { VELHTTPConnection(); },
              ThrowsMessage<VELException>(
                  "NSInvalidArgumentException: Connections should not be initialized directly"));
}

TEST(HTTPConnection, FormatsChunksAndDates) {
  EXPECT_EQ(VELHTTPConnection::chunkedTransferSizeLineForLength(0).view(), "0\r\n");
  EXPECT_EQ(VELHTTPConnection::chunkedTransferSizeLineForLength(26).view(), "1a\r\n");
  EXPECT_EQ(VELHTTPConnection::chunkedTransferSizeLineForLength(UINT64_MAX).view(),
            "ffffffffffffffff\r\n");
  EXPECT_EQ(VELHTTPConnection::chunkedTransferFooter().view(), "\r\n0\r\n\r\n");
  EXPECT_EQ(VELHTTPConnection::dateAsString(std::chrono::system_clock::from_time_t(784'111'777)),
            "Sun, 06 Nov 1994 08:49:37 GMT");
}

TEST(HTTPConnection, StaysSmallWhileItIsIdle) {
  EXPECT_LE(sizeof(VELHTTPConnection) + sizeof(ConnectionEngine), 240U);
}

TEST(KeepAlive, LimitsTheTimeOfTheNextHead) {
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  const std::vector<std::pair<double, int>> cases = {
      {15, 15'000},        {2.5, 2500},
      {0.0001, 1},         {60, 30'000},
      {0, 30'000},         {-1, 30'000},
      {kInfinite, 30'000}, {std::numeric_limits<double>::quiet_NaN(), 30'000},
  };
  for (const auto& [interval, milliseconds] : cases) {
    const auto configuration = configurationWith({routeFor("/", answeringWith("x"))});
    configuration->setKeepAliveInterval(interval);
    FakeConnection fake(configuration);
    EXPECT_EQ(fake.socket().calls().front().timeout.count(), 30'000) << interval;
    fake.answerTo(kGet);
    EXPECT_EQ(fake.socket().calls().back().timeout.count(), milliseconds) << interval;
  }
}

TEST(HTTPConnection, LeavesItsServerOnceWhenTheSocketCloses) {
  FakeConnection fake(answeringWith("x"));
  std::vector<bool> removals;
  const VELObservation observation =
      fake.server().observe("connections", [&](const VELChange& change) {
        if (change.kind == VELChange::Kind::kRemoval) removals.push_back(change.isPrior);
      });
  EXPECT_NE(fake.connection()->socket(), nullptr);
  EXPECT_EQ(fake.connection()->peerAddress().host, "192.0.2.7");
  fake.socket().breakOff();
  EXPECT_THAT(removals, ElementsAre(true, false));
  EXPECT_EQ(fake.connection()->socket(), nullptr);
  EXPECT_EQ(fake.connection()->peerAddress().host, "");
}

TEST(HTTPConnection, TellsOfItsEndAfterItsServerHasForgottenIt) {
  FakeConnection fake(answeringWith("x"));
  fake.socket().holdWrites(true);
  fake.answerTo(kGet);
  int removals = 0;
  const VELObservation observation = fake.server().observe(
      "connections", [&](const VELChange& change) { removals += change.isPrior ? 0 : 1; });
  fake.dropConnection();
  fake.server().kill();
  EXPECT_EQ(fake.server().numberOfConnections(), 0U);
  fake.socket().settle();
  EXPECT_TRUE(fake.socket().wasDisconnectedAfterWriting());
  EXPECT_EQ(removals, 0) << "the answer has not left yet";
  fake.socket().holdWrites(false);
  fake.socket().settle();
  EXPECT_EQ(removals, 1);
}

TEST(HTTPConnection, ClosesAfterTheAnswerAndBeforeTheNextRequestWhenItIsToBeIdle) {
  std::optional<VELResponseHandler> held;
  FakeConnection busy([&](const auto&, VELResponseHandler respond) { held = std::move(respond); });
  busy.answerTo(std::string(kGet) + kGet);
  busy.connection()->closeWhenIdle();
  busy.socket().settle();
  EXPECT_FALSE(busy.socket().wasDisconnected());
  (*held)(std::make_shared<VELForbiddenResponse>());
  EXPECT_NE(busy.answerTo(""), "");
  EXPECT_TRUE(busy.socket().wasDisconnectedAfterWriting());
  EXPECT_EQ(busy.socket().unread(), kGet) << "the next request is not begun";
}

TEST(HTTPConnection, ThatIsStrandedInARangeClosesInPlaceOfAnotherAnswer) {
  const std::string request = "GET / HTTP/1.1\r\nRange: bytes=1-\r\n\r\n";
  const auto answering = [](const auto&, VELResponseHandler respond) {
    respond(std::make_shared<DigitsResponse>(600'000));
  };
  {
    FakeConnection asked(answering);
    EXPECT_TRUE(asked.answerTo(request).ends_with(digits(1, 599'999)));
    EXPECT_FALSE(asked.isReadingHead());
    EXPECT_FALSE(asked.socket().wasDisconnected());
    EXPECT_EQ(asked.answerTo(kGet), "");
    EXPECT_TRUE(asked.socket().wasDisconnectedAfterWriting());
  }
  for (const bool closesBefore : {false, true}) {
    FakeConnection told(answering);
    told.socket().holdWrites(closesBefore);
    told.socket().receive(request);
    told.connection()->closeWhenIdle();
    told.socket().holdWrites(false);
    told.socket().settle();
    EXPECT_TRUE(told.socket().wasDisconnectedAfterWriting()) << closesBefore;
  }
}

TEST(HTTPConnection, WorksOnTheConfigurationOfTheMomentWhenItWasAccepted) {
  auto configuration = configurationWith({routeFor("/", answeringWith("old"))});
  configuration->setValueForVariable(std::string("v"), "name");
  FakeConnection fake(configuration);
  configuration->setRoutes({});
  EXPECT_THAT(fake.answerTo(kGet), testing::EndsWith("old"));
  const auto own = fake.connection()->configuration();
  EXPECT_EQ(own, fake.connection()->configuration());
  EXPECT_EQ(own->routes().size(), 1U);
  EXPECT_EQ(std::any_cast<std::string>(own->valueForVariable("name")), "v");
  own->setRoutes({routeFor("/", answeringWith("edited"))});
  EXPECT_THAT(fake.answerTo(kGet), testing::EndsWith("edited"));
  fake.connection()->setConfiguration(configurationWith({routeFor("/", answeringWith("set"))}));
  EXPECT_THAT(fake.answerTo(kGet), testing::EndsWith("set"));
}

struct OwnConfiguration : VELConfiguration {
  std::shared_ptr<VELConfiguration> copy() const override {
    auto made = std::make_shared<OwnConfiguration>();
    made->setRoutes(routes());
    return made;
  }
};

TEST(HTTPConnection, CopiesAConfigurationOfAHostsOwnClass) {
  const auto configuration = std::make_shared<OwnConfiguration>();
  configuration->setRoutes({routeFor("/", answeringWith("own"))});
  FakeConnection fake(configuration);
  EXPECT_THAT(fake.answerTo(kGet), testing::EndsWith("own"));
  EXPECT_NE(std::dynamic_pointer_cast<OwnConfiguration>(fake.connection()->configuration()),
            nullptr);
  EXPECT_NE(fake.connection()->configuration(), configuration);
}

}  // namespace
}  // namespace vel::test
