// One write call for each line: a reader of the other end of a pipe sees whole lines.
#include "standard_error.h"

#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string_view>

void writeLineToStandardError(std::string line) {
  // The system keeps writes to a pipe apart only up to PIPE_BUF bytes.
  static std::mutex mutex;

  line += '\n';
  const std::lock_guard<std::mutex> guard(mutex);
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t count = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    rest.remove_prefix(static_cast<size_t>(count));
  }
}
