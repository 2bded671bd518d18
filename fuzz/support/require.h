// require: what has to hold in a fuzz target, in every build type. A failure ends the process, which
// is how libFuzzer learns of it.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace vel::fuzz {

inline void require(bool holds, const char* what) noexcept {
  if (holds) return;
  std::fprintf(stderr, "fuzz: does not hold: %s\n", what);
  std::abort();
}

}  // namespace vel::fuzz
