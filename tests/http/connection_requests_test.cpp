// How a connection reads requests and has them answered, where only the inside shows it: logs, limits,
// what responses are told, exceptions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "corvane/limits.h"
#include "corvane/middleware.h"
#include "corvane/responses.h"
#include "support/fake_connection.h"
#include "support/log_capture.h"
#include "support/scripted_response.h"

namespace vel::test {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr char kGet[] = "GET / HTTP/1.1\r\n\r\n";

TEST(ConnectionReading, AnswersWhatCannotBeReadWith400AndCloses) {
  struct Case {
    std::string bytes;
    std::string log;
  };
  for (const Case& c : std::vector<Case>{
           {"nonsense\r\n", "Invalid request data"},
           {"POST / HTTP/1.1\r\nContent-Length: five\r\n\r\nhello",
            "Unable to parse Content-Length header into a valid number"},
           {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
            "Method expects chunk size, but received something else"},
           {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nabcd",
            "Method expects chunk trailer, but is missing"},
       }) {
    const LogCapture log;
    FakeConnection fake(answeringWith("x"));
    EXPECT_EQ(fake.answerTo(c.bytes),
              "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n"
              "Accept-Ranges: bytes\r\n\r\n")
        << c.bytes;
    EXPECT_THAT(fake.socket().writeTags(), ElementsAre(91));
    EXPECT_TRUE(fake.socket().wasDisconnectedAfterWriting());
    EXPECT_THAT(log.lines(), Contains(c.log));
  }
}

TEST(ConnectionReading, TakesLimitsFromTheConfiguration) {
  auto configuration = configurationWith({routeFor("/", answeringWith("x"))});
  VELLimits limits;
  limits.headLines = 2;
  limits.headLineLength = 100;
  limits.headLineTimeout = std::chrono::milliseconds(7);
  limits.bodyInMemory = 3;
  limits.bodyPiece = 2;
  configuration->setLimits(limits);
  FakeConnection fake(configuration);
  EXPECT_EQ(fake.socket().calls().front().length, 100U);
  EXPECT_EQ(fake.socket().calls().front().timeout.count(), 7);
  EXPECT_NE(fake.answerTo("POST / HTTP/1.1\r\nContent-Length: 4\r\n\r\nabcd"), "");
  EXPECT_THAT(fake.socket().readTags(), ElementsAre(10, 10, 10, 11, 11, 10));
  EXPECT_EQ(fake.answerTo("GET / HTTP/1.1\r\nA: b\r\nC: d\r\n\r\n"), "");
  EXPECT_TRUE(fake.socket().wasDisconnected());
}

TEST(ResponseHandler, LeavesTheClientWaitingWhenItIsNeverCalled) {
  const LogCapture log;
  FakeConnection fake([](const auto&, const VELResponseHandler&) {});
  EXPECT_EQ(fake.answerTo(kGet), "");
  EXPECT_FALSE(fake.socket().wasDisconnected());
  EXPECT_FALSE(fake.isReadingHead()) << "nothing is read while a route evaluates";
  EXPECT_THAT(log.lines(),
              ElementsAre("A response handler was destroyed without having been called"));
}

TEST(Responses, AreToldOnceThatTheConnectionIsDoneWithThem) {
  const auto response = std::make_shared<ScriptedResponse>(std::deque<std::string>{"x", "y"});
  {
    FakeConnection fake([&](const auto&, VELResponseHandler respond) { respond(response); });
    EXPECT_THAT(fake.answerTo(kGet), testing::EndsWith("xy"));
    EXPECT_EQ(response->closings, 1);
  }
  EXPECT_EQ(response->closings, 1);
  const auto cutOff = std::make_shared<ScriptedResponse>(std::deque<std::string>{"x", "y"});
  FakeConnection fake([&](const auto&, VELResponseHandler respond) { respond(cutOff); });
  fake.socket().holdWrites(true);
  fake.answerTo(kGet);
  EXPECT_EQ(cutOff->closings, 0);
  fake.socket().breakOff();
  EXPECT_EQ(cutOff->closings, 1);
}

TEST(SocketYield, EndsTheConnectionWithoutTouchingTheSocket) {
  FakeConnection fake([](const auto&, VELResponseHandler respond) {
    respond(std::make_shared<VELSocketYieldResponse>());
  });
  EXPECT_EQ(fake.server().numberOfConnections(), 1U);
  EXPECT_EQ(fake.answerTo(kGet), "");
  EXPECT_FALSE(fake.socket().wasDisconnected());
  EXPECT_EQ(fake.server().numberOfConnections(), 0U);
}

// Each case throws from another place.
TEST(Exceptions, CloseTheConnectionThatTheyComeFrom) {
  struct ThrowingResponse : ScriptedResponse {
    ThrowingResponse() : ScriptedResponse({"x"}) {}
    VELData readDataOfLength(uint64_t) override { throw std::runtime_error("oops"); }
  };
  struct ThrowingAtTheEnd : ScriptedResponse {
    ThrowingAtTheEnd() : ScriptedResponse({"x"}) {}
    void connectionDidClose() override { throw std::runtime_error("oops"); }
  };
  struct ThrowingAtTheRequest : VELMiddleware {
    std::shared_ptr<VELResponse> evaluateRequest(VELRequest&, VELRoute&) override {
      throw std::runtime_error("oops");
    }
  };
  struct ThrowingMiddleware : VELMiddleware {
    std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse>,
                                                  VELRequest&) override {
      throw std::runtime_error("oops");
    }
  };
  struct Case {
    std::string what;
    Handler handler;
    std::vector<std::shared_ptr<VELMiddleware>> middlewares;
    bool isLogged;
  };
  for (const Case& c : std::vector<Case>{
           {"route", [](const auto&, const auto&) { throw std::runtime_error("oops"); }, {}, true},
           {"route that has answered",
            [](const auto&, const VELResponseHandler& respond) {
              respond(std::make_shared<VELForbiddenResponse>());
              throw std::runtime_error("oops");
            },
            {},
            true},
           {"middleware", answeringWith("x"), {std::make_shared<ThrowingMiddleware>()}, true},
           {"middleware, before the route",
            answeringWith("x"),
            {std::make_shared<ThrowingAtTheRequest>()},
            false},
           {"middleware that sees 405", nullptr, {std::make_shared<ThrowingMiddleware>()}, true},
           {"body",
            [](const auto&, const VELResponseHandler& respond) {
              respond(std::make_shared<ThrowingResponse>());
            },
            {},
            true},
           {"end of the response",
            [](const auto&, const VELResponseHandler& respond) {
              respond(std::make_shared<ThrowingAtTheEnd>());
            },
            {},
            false},
       }) {
    const LogCapture log;
    const std::vector<std::string> methods{c.handler ? "GET" : "PUT"};
    FakeConnection fake(configurationWith({routeFor("/", c.handler, methods)}, c.middlewares));
    fake.answerTo(kGet);
    EXPECT_TRUE(fake.socket().wasDisconnected()) << c.what;
    EXPECT_EQ(fake.server().numberOfConnections(), 0U) << c.what;
    if (c.isLogged) {
      EXPECT_THAT(log.lines(),
                  Contains("Uncaught exception raised during request processing: oops"))
          << c.what;
    }
  }
}

}  // namespace
}  // namespace vel::test
