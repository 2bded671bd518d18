// Tests of the requests that clients send and of the progress that they return.
#include "corvane/url_request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "corvane/error.h"
#include "corvane/progress.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

TEST(URLRequest, KeepsFieldsThatCannotEndTheirLine) {
  const vel::test::LogCapture log;
  VELURLRequest request(*VELURL::URLWithString("http://h/"));
  request.setValueForHTTPHeaderField("a\r\nX: 1", "Evil");
  request.setValueForHTTPHeaderField("x", "No\r\nToken");
  request.addValueForHTTPHeaderField("chat", "sec-websocket-protocol");
  request.addValueForHTTPHeaderField("superchat", "Sec-WebSocket-Protocol");
  request.setValueForHTTPHeaderField("1", "Gone");
  request.setValueForHTTPHeaderField(std::nullopt, "GONE");
  EXPECT_THAT(
      request.allHTTPHeaderFields(),
      ElementsAre(Pair("Evil", "a  X: 1"), Pair("Sec-WebSocket-Protocol", "chat,superchat")));
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_THROW(request.setMethod("GET / HTTP/1.1\r\n"), VELException);
  EXPECT_EQ(request.method(), "GET");
}

TEST(URLRequest, HasOneBodyAtATime) {
  VELURLRequest request(*VELURL::URLWithString("http://h/"));
  request.setBody(VELData(std::string("a")));
  request.setBodyStream(VELInputStream::inputStreamWithData("b"));
  EXPECT_FALSE(request.body());
  request.setBody(VELData(std::string("a")));
  EXPECT_EQ(request.bodyStream(), nullptr);
}

TEST(Progress, RunsTheHandlerOnce) {
  auto progress = VELProgress::discreteProgress(-1);
  int first = 0;
  int second = 0;
  progress->setCancellationHandler([&] { ++first; });
  progress->cancel();
  progress->cancel();
  progress->setCancellationHandler([&] { ++second; });
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);

  for (int round = 0; round < 100; ++round) {
    auto raced = VELProgress::discreteProgress(-1);
    std::atomic<int> calls{0};
    std::thread canceller([&] { raced->cancel(); });
    raced->setCancellationHandler([&] { ++calls; });
    canceller.join();
    EXPECT_EQ(calls, 1);
  }
}

TEST(Progress, KeepsObjectsByName) {
  VELProgress progress(-1);
  progress.setUserInfoObjectForKey(std::make_shared<int>(4), "object");
  EXPECT_EQ(*std::any_cast<std::shared_ptr<int>>(progress.userInfoObject("object")), 4);
  progress.setUserInfoObjectForKey({}, "object");
  EXPECT_FALSE(progress.userInfoObject("object").has_value());
}

}  // namespace
