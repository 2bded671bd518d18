// Tests of log lines, the boolean default and HTTP dates.
#include "platform/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "platform/http_date.h"
#include "support/log_capture.h"

namespace vel {
namespace {

using std::chrono::system_clock;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Log, EscapesControlCharacters) {
  const test::LogCapture log;
  logLine("plain \xC3\xA9 \xC2\xA0 \\");
  logLine(std::string_view("a\r\nb\0c\x1B[31m\x7F\xC2\x9B\t", 15));
  logLine("\xC2");
  EXPECT_THAT(log.lines(), ElementsAre("plain \xC3\xA9 \xC2\xA0 \\",
                                       "a\\x0D\\x0Ab\\x00c\\x1B[31m\\x7F\\xC2\\x9B\\x09", "\xC2"));
}

TEST(Log, SurvivesASinkThatThrowsOrLogs) {
  int calls = 0;
  VELSetLogSink([&calls](std::string_view) {
    if (++calls == 1) logLine("from within");
    throw std::runtime_error("no");
  });
  logLine("a line");
  VELSetLogSink(nullptr);
  EXPECT_EQ(calls, 2);
}

TEST(DebugLog, SpeaksOnlyWhenOn) {
  const test::LogCapture log;
  DebugLog off;
  VELSetDebugLogging(false);
  EXPECT_FALSE(off.isOn());
  VELSetDebugLogging(true);
  // What a unit has read once stays.
  off.line("unheard");
  EXPECT_THAT(log.lines(), IsEmpty());

  DebugLog on;
  on.line("text ", std::string("and "), -5, ' ', uint64_t{18446744073709551615U}, ' ', true);
  on.line("more");
  EXPECT_THAT(log.lines(),
              ElementsAre("DEBUG LOGGING IS ON", "text and -5 18446744073709551615 true", "more"));
  VELSetDebugLogging(std::nullopt);
}

TEST(DebugLog, SaysOnceThatItIsOn) {
  const test::LogCapture log;
  VELSetDebugLogging(true);
  DebugLog unit;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&unit] { EXPECT_TRUE(unit.isOn()); });
  threads.clear();
  EXPECT_THAT(log.lines(), ElementsAre("DEBUG LOGGING IS ON"));
  VELSetDebugLogging(std::nullopt);
}

TEST(DebugLog, DefaultComesFromTheHostThenTheEnvironment) {
  const struct {
    const char* first;
    const char* second;
    std::optional<bool> host;
    bool expected;
  } cases[] = {
      {nullptr, nullptr, {}, false}, {"1", nullptr, {}, true},   {"True", nullptr, {}, true},
      {"YES", nullptr, {}, true},    {"0", "1", {}, false},      {"", "1", {}, false},
      {nullptr, "yes", {}, true},    {nullptr, "on", {}, false}, {"1", "1", false, false},
      {"0", "0", true, true},
  };
  for (const auto& c : cases) {
    ::unsetenv("DebugLogging");
    ::unsetenv("CORVANE_DEBUG_LOGGING");
    if (c.first != nullptr) ::setenv("DebugLogging", c.first, 1);
    if (c.second != nullptr) ::setenv("CORVANE_DEBUG_LOGGING", c.second, 1);
    VELSetDebugLogging(c.host);
    EXPECT_EQ(debugLoggingDefault(), c.expected) << &c - cases;
  }
  VELSetDebugLogging(std::nullopt);
  ::unsetenv("DebugLogging");
  ::unsetenv("CORVANE_DEBUG_LOGGING");
}

TEST(HttpDate, AgreesWithTheSystemForEveryDay) {
  const auto dateAt = [](std::time_t time) { return httpDate(system_clock::from_time_t(time)); };
  ::setenv("TZ", "America/New_York", 1);
  EXPECT_EQ(dateAt(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");  // RFC 9110 §5.6.7
  EXPECT_EQ(dateAt(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
  for (int day = -1000; day < 60'000; ++day) {
    const std::time_t time = std::time_t{day} * 86'400 + day % 86'400;
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    char text[40];
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
    ASSERT_EQ(dateAt(time), text);
  }
  ::unsetenv("TZ");
}

TEST(HttpDate, NowIsNow) {
  const std::string before = httpDate(system_clock::now() - std::chrono::seconds(1));
  const std::string now(httpDateNow());
  const std::string after = httpDate(system_clock::now());
  const std::string between = httpDate(system_clock::now() - std::chrono::seconds(1));
  EXPECT_TRUE(now == before || now == after || now == between) << now;
}

}  // namespace
}  // namespace vel
