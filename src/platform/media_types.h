// The media types that the system knows, by file extension. The library's own table is another one.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vel {

/// The content of a mime.types file: lines of a media type and the extensions that stand for it.
/// Immutable once made.
class MediaTypes {
 public:
  /// Comments begin with "#". Where an extension stands twice, the first line has it.
  explicit MediaTypes(std::string text);
  MediaTypes(const MediaTypes&) = delete;
  MediaTypes& operator=(const MediaTypes&) = delete;

  /// What the system's file says, read once; nothing where there is no such file.
  static const MediaTypes& system();

  /// The type for `extension`, which has no dot; letter case does not matter.
  std::optional<std::string_view> typeForExtension(std::string_view extension) const;

 private:
  struct Entry {
    std::string_view extension;
    std::string_view type;
  };

  void addLine(std::string_view line);

  // What the entries look into.
  const std::string text_;
  // Sorted by extension.
  std::vector<Entry> entries_;
};

}  // namespace vel
