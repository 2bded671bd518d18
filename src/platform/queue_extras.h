// What few serial queues need, kept beside them: labels of hosts, specific values; and the last resort.
#pragma once

#include <exception>
#include <map>
#include <mutex>
#include <string>

namespace vel {

struct QueueExtras {
  std::string label;
  std::mutex mutex;
  // Guarded by mutex.
  std::map<const void*, void*> specifics;
};

/// Logs what work of a queue threw, and tells the host's handler if there is one.
void reportUncaughtException(const std::exception_ptr& exception);

}  // namespace vel
