// The date format, and the cached text of now.
#include "platform/http_date.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace vel {
namespace {

constexpr std::array<std::string_view, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

void appendTwoDigits(unsigned value, std::string* out) {
  out->push_back(static_cast<char>('0' + value / 10));
  out->push_back(static_cast<char>('0' + value % 10));
}

std::string formatted(std::chrono::sys_seconds time) {
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);

  std::string text;
  text.reserve(32);
  text.append(kDays[std::chrono::weekday(day).c_encoding()]).append(", ");
  appendTwoDigits(static_cast<unsigned>(date.day()), &text);
  text.append(" ").append(kMonths[static_cast<unsigned>(date.month()) - 1]).append(" ");
  text.append(std::to_string(static_cast<int>(date.year()))).append(" ");
  appendTwoDigits(static_cast<unsigned>(clock.hours().count()), &text);
  text.append(":");
  appendTwoDigits(static_cast<unsigned>(clock.minutes().count()), &text);
  text.append(":");
  appendTwoDigits(static_cast<unsigned>(clock.seconds().count()), &text);
  return text.append(" GMT");
}

int64_t currentSecond() {
#ifdef CLOCK_REALTIME_COARSE
  // Some milliseconds late at most, and read without a system call.
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now.tv_sec;
#else
  return std::time(nullptr);
#endif
}

struct CachedDate {
  int64_t second;
  size_t length;
  std::array<char, 40> text;
};

constinit thread_local CachedDate cached{INT64_MIN, 0, {}};

}  // namespace

std::string httpDate(std::chrono::system_clock::time_point time) {
  return formatted(std::chrono::floor<std::chrono::seconds>(time));
}

std::string_view httpDateNow() {
  CachedDate& date = cached;
  const int64_t second = currentSecond();
  if (date.second != second) {
    const std::string text = formatted(std::chrono::sys_seconds(std::chrono::seconds(second)));
    date.length = text.copy(date.text.data(), date.text.size());
    date.second = second;
  }
  return {date.text.data(), date.length};
}

}  // namespace vel
