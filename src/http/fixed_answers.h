// The answers that the connection makes itself when there is no response to send.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvane/error.h"
#include "corvane/limits.h"
#include "corvane/socket.h"
#include "http/answer_writer.h"

namespace vel {

enum class FixedAnswer : uint8_t {
  kInvalidRequest,       ///< 400, and the connection closes
  kResourceNotFound,     ///< 404: no route matches
  kNoResponse,           ///< 404: a route answered with neither a response nor an error
  kServerError,          ///< 500, with the error's texts
  kVersionNotSupported,  ///< 505
};

/// The status code of `answer`.
uint64_t statusOf(FixedAnswer answer) noexcept;

/// Writes `answer` as a whole, with the tag of a last write. `error` is the one that `kServerError`
/// is about.
void writeFixedAnswer(FixedAnswer answer, const VELError* error, const VELLimits& limits,
                      VELSocket* socket, SentBytes* sent);

/// What is logged about `answer` while debug logging is on, up to the request's description.
std::string_view debugTextOf(FixedAnswer answer) noexcept;

}  // namespace vel
