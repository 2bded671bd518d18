// PlainRequests: what a connection makes of the bytes of a client, found slowly and plainly from the
// whole of them at once: the model that the engine is held against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/limits.h"

namespace vel::fuzz {

/// How a connection ends up after the bytes.
enum class Ending : uint8_t {
  kWaits,    ///< it waits for more
  kCloses,   ///< it closes after its last answer
  kDropped,  ///< it is disconnected without a further answer
};

struct PlainRequests {
  /// One for each answer.
  std::vector<int> statuses;
  /// What reaches the route: method, target and body, a line each.
  std::vector<std::string> evaluated;
  Ending ending = Ending::kWaits;
  /// How many bytes at the end were not taken.
  size_t unread = 0;

  friend bool operator==(const PlainRequests&, const PlainRequests&) = default;
};

/// One entry of `evaluated`.
std::string requestText(std::string_view method, std::string_view target, std::string_view body);

/// The requests in `bytes`, for a server with one route, for every path that begins with "/" and the
/// methods GET, HEAD, POST and PUT, that answers 200.
PlainRequests plainRequestsOf(std::string_view bytes, const VELLimits& limits);

}  // namespace vel::fuzz
