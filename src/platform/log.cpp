// The sink of log lines and the boolean default "DebugLogging".
#include "platform/log.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

#include "corvane/log.h"
#include "platform/ascii.h"

namespace vel {
namespace {

/// The host's sink, if any. Never destroyed: threads may log while the process ends.
struct SinkHolder {
  std::mutex mutex;
  std::shared_ptr<const VELLogSink> sink;  // Guarded by `mutex`, which is not held around a call.
};

SinkHolder& sinkHolder() {
  static auto* const holder = new SinkHolder();
  return *holder;
}

std::shared_ptr<const VELLogSink> currentSink() {
  SinkHolder& holder = sinkHolder();
  const std::lock_guard lock(holder.mutex);
  return holder.sink;
}

/// True when standard error is the stream that the journal named in the environment.
bool isJournalStream() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status;
  if (stream == nullptr || ::fstat(STDERR_FILENO, &status) != 0) return false;
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

bool logsToStandardError() {
  static const bool decision = ::isatty(STDERR_FILENO) == 1 || isJournalStream();
  return decision;
}

void writeToStandardError(std::string_view line) {
  std::string text(line);
  text.push_back('\n');
  for (std::string_view rest = text; !rest.empty();) {
    // The journal's end is a socket, and its restart must not raise SIGPIPE in the host.
    ssize_t count = ::send(STDERR_FILENO, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == ENOTSOCK) count = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    rest.remove_prefix(static_cast<size_t>(count));
  }
}

void writeToSystem(std::string_view line) {
  if (logsToStandardError()) {
    writeToStandardError(line);
  } else {
    const int length = static_cast<int>(std::min<size_t>(line.size(), 16384));
    ::syslog(LOG_USER | LOG_NOTICE, "%.*s", length, line.data());
  }
}

void deliver(std::string_view line) {
  if (const auto sink = currentSink()) {
    (*sink)(line);
  } else {
    writeToSystem(line);
  }
}

/// C1 control characters, which some terminals obey, are C2 80 to C2 9F in UTF-8.
bool isWideControl(std::string_view text, size_t at) {
  if (text[at] != '\xC2' || at + 1 == text.size()) return false;
  const auto next = static_cast<unsigned char>(text[at + 1]);
  return next >= 0x80 && next <= 0x9F;
}

bool needsEscape(std::string_view text, size_t at) {
  return isControl(text[at]) || isWideControl(text, at);
}

void appendEscape(char c, std::string* out) {
  const auto digits = hexDigits(static_cast<uint8_t>(c), true);
  out->append("\\x").append(digits.data(), digits.size());
}

constexpr int8_t kUnset = -1;
constinit std::atomic<int8_t> hostDefault{kUnset};

bool isTrueText(std::string_view text) {
  return text == "1" || equalsIgnoringCase(text, "true") || equalsIgnoringCase(text, "yes");
}

}  // namespace

std::string escapedForLog(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    if (!needsEscape(text, at)) {
      escaped.push_back(text[at]);
      continue;
    }
    const bool wide = isWideControl(text, at);
    appendEscape(text[at], &escaped);
    if (wide) appendEscape(text[++at], &escaped);
  }
  return escaped;
}

void logLine(std::string_view line) noexcept {
  try {
    for (size_t at = 0; at < line.size(); ++at) {
      if (needsEscape(line, at)) return deliver(escapedForLog(line));
    }
    deliver(line);
  } catch (...) {
    // A sink that throws, or no memory left: there is nowhere to say so.
    return;
  }
}

bool debugLoggingDefault() noexcept {
  const int8_t setting = hostDefault.load(std::memory_order_relaxed);
  if (setting != kUnset) return setting != 0;
  const char* text = std::getenv("DebugLogging");
  if (text == nullptr) text = std::getenv("CORVANE_DEBUG_LOGGING");
  return text != nullptr && isTrueText(text);
}

bool DebugLog::readDefault() noexcept {
  const bool on = debugLoggingDefault();
  State expected = State::kUnread;
  // Of several threads that ask first, one says so.
  const bool first = state_.compare_exchange_strong(expected, on ? State::kOn : State::kOff,
                                                    std::memory_order_relaxed);
  if (first && on) logLine("DEBUG LOGGING IS ON");
  return first ? on : expected == State::kOn;
}

}  // namespace vel

void VELSetLogSink(VELLogSink sink) {
  auto next = sink ? std::make_shared<const VELLogSink>(std::move(sink)) : nullptr;
  vel::SinkHolder& holder = vel::sinkHolder();
  {
    const std::lock_guard lock(holder.mutex);
    holder.sink.swap(next);
  }
}

void VELSetDebugLogging(std::optional<bool> isOn) {
  const int8_t setting = !isOn ? vel::kUnset : *isOn ? int8_t{1} : int8_t{0};
  vel::hostDefault.store(setting, std::memory_order_relaxed);
}
