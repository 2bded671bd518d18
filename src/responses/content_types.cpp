// A sorted table, searched by halves.
#include "responses/content_types.h"

#include <algorithm>
#include <array>

namespace vel {

namespace {

struct ContentType {
  std::string_view extension;
  std::string_view type;
};

// "ts" is meant to be a script, not a video.
constexpr std::array<ContentType, 49> kContentTypes{{
    {"7z", "application/x-7z-compressed"},
    {"aac", "audio/aac"},
    {"avi", "video/x-msvideo"},
    {"bin", "application/octet-stream"},
    {"bmp", "image/bmp"},
    {"bz", "application/x-bzip"},
    {"bz2", "application/x-bzip2"},
    {"css", "text/css"},
    {"csv", "text/csv"},
    {"epub", "application/epub+zip"},
    {"es", "application/ecmascript"},
    {"gif", "image/gif"},
    {"htm", "text/html"},
    {"html", "text/html"},
    {"ico", "image/x-icon"},
    {"ics", "text/calendar"},
    {"jar", "application/java-archive"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"js", "application/javascript"},
    {"json", "application/json"},
    {"mid", "audio/midi"},
    {"midi", "audio/midi"},
    {"mpeg", "video/mpeg"},
    {"oga", "audio/ogg"},
    {"ogv", "video/ogg"},
    {"ogx", "application/ogg"},
    {"otf", "font/otf"},
    {"pdf", "application/pdf"},
    {"png", "image/png"},
    {"rar", "application/x-rar-compressed"},
    {"rtf", "application/rtf"},
    {"svg", "image/svg+xml"},
    {"tar", "application/x-tar"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"ts", "application/typescript"},
    {"ttf", "font/ttf"},
    {"txt", "text/plain"},
    {"wasm", "application/wasm"},
    {"wav", "audio/wav"},
    {"weba", "audio/webm"},
    {"webm", "video/webm"},
    {"webp", "image/webp"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"xhtml", "application/xhtml+xml"},
    {"xml", "application/xml"},
    {"zip", "application/zip"},
}};

constexpr bool precedes(const ContentType& a, const ContentType& b) {
  return a.extension < b.extension;
}

static_assert(std::is_sorted(kContentTypes.begin(), kContentTypes.end(), precedes));

}  // namespace

std::optional<std::string_view> contentTypeForFileExtension(std::string_view extension) noexcept {
  const auto entry = std::lower_bound(kContentTypes.begin(), kContentTypes.end(),
                                      ContentType{extension, {}}, precedes);
  if (entry == kContentTypes.end() || entry->extension != extension) return std::nullopt;
  return entry->type;
}

}  // namespace vel
