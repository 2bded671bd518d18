// The library's own table of file extensions and media types. What the system knows about extensions that
// it lacks is asked elsewhere.
#pragma once

#include <optional>
#include <string_view>

namespace vel {

/// The media type for a file extension without its dot, exactly as it stands: "JPG" has none.
std::optional<std::string_view> contentTypeForFileExtension(std::string_view extension) noexcept;

}  // namespace vel
