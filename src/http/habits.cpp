#include "http/habits.h"

#include <algorithm>

#include "corvane/http_message.h"
#include "platform/ascii.h"
#include "platform/number.h"
#include "platform/utf8.h"

namespace vel {

namespace {

bool contains(const VELMethodList& methods, std::string_view method) noexcept {
  return methods != nullptr &&
         std::find(methods->begin(), methods->end(), method) != methods->end();
}

}  // namespace

bool admitsLines(uint64_t lines, const VELLimits& limits) noexcept {
  return lines <= limits.headLines;
}

bool isChunkedCoding(std::optional<std::string_view> transferEncoding) noexcept {
  return transferEncoding && equalsIgnoringCase(*transferEncoding, "chunked");
}

std::optional<uint64_t> admittedContentLength(std::string_view field) noexcept {
  return parseNumber(field, NumberGrammar::kContentLength);
}

std::optional<uint64_t> admittedChunkSize(std::string_view line) noexcept {
  if (!isValidUTF8(line)) return std::nullopt;
  return parseNumber(line, NumberGrammar::kChunkSize);
}

bool endsTrailer(std::string_view line) noexcept { return line.size() < 3; }

bool speaksVersion(std::string_view version) noexcept {
  return version == VELHTTPVersion1_1 || version == VELHTTPVersion1_0;
}

bool keepsAlive(std::string_view version, std::optional<std::string_view> connection) noexcept {
  if (version == VELHTTPVersion1_1) {
    return !connection || !equalsIgnoringCase(*connection, "close");
  }
  if (version == VELHTTPVersion1_0) {
    return connection && equalsIgnoringCase(*connection, "keep-alive");
  }
  return true;
}

bool answersWithoutRoute(std::string_view method, const VELMethodList& allowedMethods) noexcept {
  return (method == "OPTIONS" || method == "TRACE") && !contains(allowedMethods, method);
}

bool allowsMethod(std::string_view method, const VELMethodList& allowedMethods) noexcept {
  return allowedMethods == nullptr || contains(allowedMethods, method);
}

bool asksForHeadOnly(std::string_view method) noexcept { return method == "HEAD"; }

std::string_view chunkedCodingName() noexcept { return "Chunked"; }

bool takesRanges(std::string_view /*method*/, uint64_t /*status*/) noexcept { return true; }

std::optional<VELRange> rangeOfSingleNumber(uint64_t number, uint64_t contentLength) noexcept {
  if (number >= contentLength) return std::nullopt;
  return VELRange{number, 1};
}

std::optional<VELRange> rangeBetween(uint64_t first, uint64_t last,
                                     uint64_t contentLength) noexcept {
  if (last < first || last >= contentLength) return std::nullopt;
  return VELRange{first, last - first + 1};
}

std::optional<VELRange> rangeOfSuffix(uint64_t length, uint64_t contentLength) noexcept {
  if (length > contentLength) return std::nullopt;
  return VELRange{contentLength - length, length};
}

uint64_t partialStatus(uint64_t /*status*/) noexcept { return 206; }

uint64_t statusWithoutRanges(uint64_t status) noexcept { return status; }

uint64_t missingLength(VELRange range, uint64_t offset) noexcept {
  return range.location - offset + range.length;
}

uint64_t serverErrorContentLength(uint64_t /*bodyLength*/) noexcept { return 0; }

}  // namespace vel
