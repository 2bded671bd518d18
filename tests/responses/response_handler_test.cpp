// Tests of response handlers that a host makes of a callback.
#include "corvane/response_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vel::test::LogCapture;

TEST(ResponseHandler, PassesOneAnswerOnAndLogsTheNext) {
  const LogCapture log;
  std::vector<std::shared_ptr<VELResponse>> responses;
  std::optional<VELError> failure;
  const auto response = std::make_shared<VELResponse>();
  {
    const VELResponseHandler handler(
        [&](std::shared_ptr<VELResponse> answer, std::optional<VELError> error) {
          responses.push_back(std::move(answer));
          failure = std::move(error);
        });
    const VELResponseHandler copy = handler;
    copy(response, VELError("Domain", 3));
    EXPECT_THAT(log.lines(), IsEmpty());
    handler(nullptr);
  }
  EXPECT_THAT(responses, ElementsAre(response));
  EXPECT_EQ(failure, VELError("Domain", 3));
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("called more than once")));
}

TEST(ResponseHandler, IsLoggedWhenItGoesAwayUncalled) {
  const LogCapture log;
  {
    const VELResponseHandler handler([](const auto&, const auto&) {});
    const VELResponseHandler copy = handler;
  }
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("destroyed without having been called")));
}

TEST(ResponseHandler, TakesOneOfManyAnswersAtOnce) {
  const LogCapture log;
  std::atomic<int> answers{0};
  {
    const VELResponseHandler handler([&](const auto&, const auto&) { ++answers; });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([handler] { handler(nullptr); });
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(log.lines().size(), 3U);
}

}  // namespace
