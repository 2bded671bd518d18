// Habits: every decision of the engine that departs from what current standards advise, or that a
// profile may want to take otherwise. Each is one function, asked in one place.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "corvane/limits.h"
#include "corvane/range.h"
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

/// Whether the "Range" field of a request is looked at: whatever its method, and whatever the status
/// of the answer.
bool takesRanges(std::string_view method, uint64_t status) noexcept;

/// The range that a number without a hyphen asks for: the one byte there.
std::optional<VELRange> rangeOfSingleNumber(uint64_t number, uint64_t contentLength) noexcept;

/// The range from `first` to `last`, both included. A last position beyond the body is refused, not
/// moved to its end.
std::optional<VELRange> rangeBetween(uint64_t first, uint64_t last,
                                     uint64_t contentLength) noexcept;

/// The range of the last `length` bytes, be it none. A suffix longer than the body is refused.
std::optional<VELRange> rangeOfSuffix(uint64_t length, uint64_t contentLength) noexcept;

/// The status of an answer in part: 206, whatever the response's.
uint64_t partialStatus(uint64_t status) noexcept;

/// The status of an answer to ranges that were refused: the response's own, and the body is sent
/// whole. There is no 416.
uint64_t statusWithoutRanges(uint64_t status) noexcept;

/// How many bytes of `range` are taken to be missing once the response has been read: told by its
/// offset alone, which reading does not move in the library's own kinds. So a range that needs more
/// than one piece is read on beyond its end until no data comes, and only a response that moves its
/// offset gets to the next range.
uint64_t missingLength(VELRange range, uint64_t offset) noexcept;

/// What "Content-Length" says in the answer to a failed request, whose body is `bodyLength` bytes:
/// 0.
uint64_t serverErrorContentLength(uint64_t bodyLength) noexcept;

}  // namespace vel
