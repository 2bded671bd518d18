// Reads /etc/mime.types, the list that every web server on the system shares.
#include "platform/media_types.h"

#include <algorithm>
#include <utility>

#include "platform/ascii.h"
#include "platform/file.h"

namespace vel {

namespace {

constexpr char kSystemFile[] = "/etc/mime.types";

/// Takes the next word off the front of `line`; empty at its end.
std::string_view takeWord(std::string_view* line) {
  size_t begin = 0;
  while (begin < line->size() && isSpace((*line)[begin])) ++begin;
  size_t end = begin;
  while (end < line->size() && !isSpace((*line)[end])) ++end;
  const std::string_view word = line->substr(begin, end - begin);
  line->remove_prefix(end);
  return word;
}

bool precedes(std::string_view a, std::string_view b) { return compareIgnoringCase(a, b) < 0; }

}  // namespace

MediaTypes::MediaTypes(std::string text) : text_(std::move(text)) {
  std::string_view rest = text_;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    addLine(line.substr(0, line.find('#')));
  }
  std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
    return precedes(a.extension, b.extension);
  });
}

const MediaTypes& MediaTypes::system() {
  // Never destroyed: loops may still serve files while the process ends.
  static const auto* const types =
      new MediaTypes(readWholeFile(kSystemFile).value_or(std::string()));
  return *types;
}

std::optional<std::string_view> MediaTypes::typeForExtension(std::string_view extension) const {
  const auto entry =
      std::lower_bound(entries_.begin(), entries_.end(), extension,
                       [](const Entry& a, std::string_view b) { return precedes(a.extension, b); });
  if (entry == entries_.end() || !equalsIgnoringCase(entry->extension, extension)) {
    return std::nullopt;
  }
  return entry->type;
}

void MediaTypes::addLine(std::string_view line) {
  const std::string_view type = takeWord(&line);
  for (std::string_view extension = takeWord(&line); !extension.empty();
       extension = takeWord(&line)) {
    entries_.push_back({extension, type});
  }
}

}  // namespace vel
