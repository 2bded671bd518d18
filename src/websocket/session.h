// What the files of a session share: its numbers, and what only a session that ends needs.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "corvane/error.h"

class VELWebSocket;

namespace vel {

/// The tag of every read and of every frame that is written.
inline constexpr int64_t kSessionTag = 11;
/// The tag of the write of nothing behind all that waits to be sent.
inline constexpr int64_t kSentTag = 12;
/// How long the rest of a frame, and the writing of one, may take.
inline constexpr std::chrono::milliseconds kFrameTimeout{30'000};
/// Nobody has to say anything.
inline constexpr std::chrono::milliseconds kNoTimeout{-1};

/// Close statuses (RFC 6455 §7.4.1).
enum CloseStatus : int64_t {
  kNormalClosure = 1000,
  kGoingAway = 1001,
  kProtocolError = 1002,
  kNoStatus = 1005,
  kAbnormalClosure = 1006,
  kInvalidPayload = 1007,
};

/// What is reported at the end.
struct SessionEnding {
  int64_t code = kAbnormalClosure;
  std::optional<std::string> reason;
  // Keeps a session that closes until its delegate has been told: its server may have forgotten it.
  std::shared_ptr<VELWebSocket> held;
  // How a session ended that had no delegate yet.
  std::optional<VELError> untold;
};

}  // namespace vel
