// Habits: every decision of the engine that departs from what current standards advise, or that a
// profile may want to take otherwise. Each is one function, asked in one place.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "corvane/limits.h"
#include "corvane/route.h"

namespace vel {

/// Whether a head and its trailer may have `lines` lines.
bool admitsLines(uint64_t lines, const VELLimits& limits) noexcept;

/// Whether the body comes in chunks: only when "Transfer-Encoding" is "chunked" and nothing else.
/// Any other value, a list that ends in "chunked" too, leaves the decision to "Content-Length".
bool isChunkedCoding(std::optional<std::string_view> transferEncoding) noexcept;

/// The length that a "Content-Length" field announces; none is answered with 400. White space, a
/// plus sign and text after the digits are let through.
std::optional<uint64_t> admittedContentLength(std::string_view field) noexcept;

/// The size that a chunk-size line announces; none is answered with 400. Whatever follows the
/// digits is skipped, so extensions are; "0x" before them is let through.
std::optional<uint64_t> admittedChunkSize(std::string_view line) noexcept;

/// Whether a trailer line ends the trailer.
bool endsTrailer(std::string_view line) noexcept;

/// Whether requests of this version are answered; the others get 505.
bool speaksVersion(std::string_view version) noexcept;

/// Whether the connection stays open after the answer. "Connection" is compared as a whole, and
/// what the answer itself says is not asked; a version that is not spoken keeps the connection
/// open.
bool keepsAlive(std::string_view version, std::optional<std::string_view> connection) noexcept;

/// Whether OPTIONS or TRACE is answered without asking middlewares and route: unless the route
/// names it.
bool answersWithoutRoute(std::string_view method, const VELMethodList& allowedMethods) noexcept;

/// Whether a route takes a method. Methods are compared exactly.
bool allowsMethod(std::string_view method, const VELMethodList& allowedMethods) noexcept;

/// Whether the answer goes without its body (RFC 9110 §9.3.2).
bool asksForHeadOnly(std::string_view method) noexcept;

/// The value of "Transfer-Encoding" in an answer in chunks.
std::string_view chunkedCodingName() noexcept;

/// What "Content-Length" says in the answer to a failed request, whose body is `bodyLength` bytes:
/// 0.
uint64_t serverErrorContentLength(uint64_t bodyLength) noexcept;

}  // namespace vel
