// What a host is told about finished requests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "corvane/responses.h"
#include "support/digits_response.h"
#include "support/fake_connection.h"
#include "support/scripted_response.h"

namespace vel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// One line for each summary.
class Reports {
 public:
  explicit Reports(FakeConnection* fake) {
    fake->server().setRequestFinishedHandler([this](const VELRequestSummary& summary) {
      EXPECT_EQ(summary.peerAddress.host, "192.0.2.7");
      EXPECT_GE(summary.duration.count(), 0);
      bytes += summary.bytesSent;
      lines.push_back(std::string(summary.method) + ' ' + std::string(summary.target) + ' ' +
                      std::string(summary.version) + ' ' + std::to_string(summary.status) + ' ' +
                      std::to_string(summary.bodyBytesSent) +
                      (summary.request ? " " + summary.request->path() : ""));
    });
  }

  std::vector<std::string> lines;
  uint64_t bytes = 0;
};

TEST(RequestReport, TellsEveryAnswerOnce) {
  FakeConnection fake(configurationWith({routeFor("/known", answeringWith("hello"))}));
  Reports reports(&fake);
  fake.socket().receive("GET /known?q HTTP/1.1\r\n\r\nGET /other HTTP/1.1\r\n\r\n");
  fake.socket().receive("HEAD /known HTTP/1.1\r\n\r\nGET /known HTTP/1.9\r\n\r\n");
  fake.socket().receive("GET /known HTTP/1.1\r\nbad\r\n\r\n");
  EXPECT_THAT(reports.lines,
              ElementsAre("GET /known?q HTTP/1.1 200 5 /known", "GET /other HTTP/1.1 404 0 /other",
                          "HEAD /known HTTP/1.1 200 0 /known", "GET /known HTTP/1.9 505 0 /known",
                          "GET /known HTTP/1.1 400 0"));
  EXPECT_EQ(reports.bytes, fake.socket().output().size());
}

TEST(RequestReport, ComesWithTheLastWriteAndNotBefore) {
  FakeConnection fake([](const auto&, VELResponseHandler respond) {
    respond(std::make_shared<ScriptedResponse>(std::deque<std::string>{"a", "b"}));
  });
  Reports reports(&fake);
  fake.socket().holdWrites(true);
  fake.socket().receive("GET / HTTP/1.1\r\n\r\n");
  fake.socket().completeOneWrite();
  fake.socket().completeOneWrite();
  EXPECT_THAT(reports.lines, IsEmpty());
  fake.socket().completeOneWrite();
  EXPECT_THAT(reports.lines, ElementsAre("GET / HTTP/1.1 200 2 /"));
}

TEST(RequestReport, TellsTheStatusThatWasSent) {
  FakeConnection fake([](const auto&, VELResponseHandler respond) {
    respond(std::make_shared<DigitsResponse>(600'000));
  });
  Reports reports(&fake);
  fake.socket().receive("GET /part HTTP/1.1\r\nRange: bytes=0-1\r\n\r\n");
  fake.socket().receive("GET /whole HTTP/1.1\r\nRange: bytes=-600001\r\n\r\n");
  fake.socket().receive("GET /stranded HTTP/1.1\r\nRange: bytes=1-\r\n\r\n");
  EXPECT_EQ(reports.lines.size(), 2U);
  fake.socket().breakOff();
  EXPECT_THAT(reports.lines,
              ElementsAre("GET /part HTTP/1.1 206 2 /part", "GET /whole HTTP/1.1 200 600000 /whole",
                          "GET /stranded HTTP/1.1 206 599999 /stranded"));
}

TEST(RequestReport, TellsOfRequestsThatTheConnectionDidNotSurvive) {
  {
    FakeConnection fake([](const auto&, VELResponseHandler respond) {
      respond(std::make_shared<ScriptedResponse>(std::deque<std::string>{"abc", "d"}));
    });
    Reports reports(&fake);
    fake.socket().holdWrites(true);
    fake.socket().receive("GET / HTTP/1.1\r\n\r\n");
    fake.socket().breakOff();
    EXPECT_THAT(reports.lines, ElementsAre("GET / HTTP/1.1 200 3 /")) << "cut off";
  }
  {
    std::vector<VELResponseHandler> held;
    FakeConnection fake([&](const auto&, VELResponseHandler respond) { held.push_back(respond); });
    Reports reports(&fake);
    fake.socket().receive("GET / HTTP/1.1\r\n\r\n");
    fake.socket().breakOff();
    EXPECT_THAT(reports.lines, ElementsAre("GET / HTTP/1.1 0 0 /")) << "never answered";
  }
  FakeConnection fake([](const auto&, VELResponseHandler respond) {
    respond(std::make_shared<VELSocketYieldResponse>());
  });
  Reports reports(&fake);
  fake.socket().receive("GET / HTTP/1.1\r\n\r\n");
  EXPECT_THAT(reports.lines, ElementsAre("GET / HTTP/1.1 101 0 /")) << "handed over";
}

}  // namespace
}  // namespace vel::test
