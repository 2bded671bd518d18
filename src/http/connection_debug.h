// The debug lines of the connections, one unit of the library.
#pragma once

#include "platform/log.h"

namespace vel {

/// The unit's flag: read once, when a connection first has something to log.
inline DebugLog& connectionDebugLog() noexcept {
  static constinit DebugLog log;
  return log;
}

}  // namespace vel
