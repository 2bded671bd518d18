// A log that goes nowhere: what peers send wrongly is logged, and a fuzzer sends little else.
#pragma once

#include <string_view>

#include "corvane/log.h"

namespace vel::fuzz {

/// The first call of a process silences it.
inline void silenceLog() {
  static const bool is_silent = [] {
    VELSetLogSink([](std::string_view) {});
    return true;
  }();
  (void)is_silent;
}

}  // namespace vel::fuzz
