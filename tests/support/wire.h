// Wire: the client's end of a connection as the tests see it. A TCP socket now; whatever carries bytes
// both ways can take its place under the same suite.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace vel::test {

/// How long anything may take before a test gives up. It never decides what a test observes.
inline constexpr std::chrono::seconds kPatience{30};

/// One end of a connection; every operation blocks.
/// Errors:  raises `std::runtime_error` when `kPatience` has gone by.
class Wire {
 public:
  virtual ~Wire() = default;
  /// Sends all of `bytes`; false when the other end no longer takes any.
  virtual bool send(std::string_view bytes) = 0;
  /// Appends what has come, one byte at least; false at the end, orderly or not.
  virtual bool receive(std::string& received) = 0;
  /// Closes the sending direction only.
  virtual void finishSending() = 0;
  /// Ends the connection so that the other end sees a reset.
  virtual void reset() = 0;
};

}  // namespace vel::test
