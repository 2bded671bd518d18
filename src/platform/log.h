// Log lines of the library: one line for always, and one flag per unit for debug lines. The sink and
// the boolean default belong to the host (corvane/log.h).
#pragma once

#include <array>
#include <atomic>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace vel {

/// Logs one line, its control characters escaped. Never throws, and may be called anywhere.
void logLine(std::string_view line) noexcept;

/// `text` with control characters, those beyond ASCII too, as \xNN.
std::string escapedForLog(std::string_view text);

/// The boolean default "DebugLogging" as it stands now.
bool debugLoggingDefault() noexcept;

/// The debug lines of one unit of the library. Make it a static of the unit: the default is read once,
/// when the unit first asks, and says "DEBUG LOGGING IS ON" if so.
///
///   static DebugLog debug;
///   if (debug.isOn()) debug.line("Closing ", identifier.UUIDString());
///
/// While it is off, asking is one relaxed load, and a line of texts and numbers costs nothing more.
class DebugLog {
 public:
  constexpr DebugLog() noexcept = default;
  DebugLog(const DebugLog&) = delete;
  DebugLog& operator=(const DebugLog&) = delete;

  bool isOn() noexcept {
    const State state = state_.load(std::memory_order_relaxed);
    return state == State::kUnread ? readDefault() : state == State::kOn;
  }

  /// Logs its arguments, texts and integers, as one line.
  template <typename... Parts>
  void line(const Parts&... parts) {
    if (!isOn()) return;
    std::string text;
    (append(parts, &text), ...);
    logLine(text);
  }

 private:
  enum class State : uint8_t { kUnread, kOff, kOn };

  bool readDefault() noexcept;

  template <typename Part>
  static void append(const Part& part, std::string* text) {
    if constexpr (std::same_as<Part, char>) {
      text->push_back(part);
    } else if constexpr (std::same_as<Part, bool>) {
      text->append(part ? "true" : "false");
    } else if constexpr (std::integral<Part>) {
      std::array<char, 24> digits{};
      const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), part).ptr;
      text->append(digits.data(), end);
    } else {
      text->append(std::string_view(part));
    }
  }

  std::atomic<State> state_{State::kUnread};
};

}  // namespace vel
