// Dates as HTTP writes them: "Sun, 06 Nov 1994 08:49:37 GMT" (RFC 9110 §5.6.7), whatever the locale.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace vel {

/// `time` in GMT, cut to seconds.
std::string httpDate(std::chrono::system_clock::time_point time);

/// The current date. The text belongs to the calling thread, is made once per second and stays valid
/// until the thread asks again.
std::string_view httpDateNow();

}  // namespace vel
