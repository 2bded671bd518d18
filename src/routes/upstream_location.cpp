#include "routes/upstream_location.h"

#include <algorithm>
#include <string>

#include "platform/percent.h"

namespace vel {
namespace {

// Both joined by one slash, without doubled ones and without one at the end.
std::string joinedPath(const std::string& base, std::string_view remainder) {
  std::string path;
  for (const char c : base + "/" + std::string(remainder)) {
    if (c != '/' || !path.ends_with('/')) path.push_back(c);
  }
  if (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

// Whether ".." segments of `path` lead above where it begins.
bool climbsOut(std::string_view path) {
  int depth = 0;
  while (!path.empty()) {
    const size_t slash = std::min(path.find('/'), path.size());
    const std::string_view segment = path.substr(0, slash);
    if (segment == "..") {
      --depth;
    } else if (!segment.empty() && segment != ".") {
      ++depth;
    }
    if (depth < 0) return true;
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return false;
}

}  // namespace

std::optional<VELURL> upstreamLocation(const VELURL& base, std::string_view remainder,
                                       const std::optional<VELURL>& requested) {
  const std::string& text = base.absoluteString();
  const size_t authority = text.find("://");
  if (authority == std::string::npos) return base;
  if (climbsOut(remainder)) return std::nullopt;
  const size_t end = std::min(text.find_first_of("/?#", authority + 3), text.size());
  std::string location = text.substr(0, end);
  const std::string base_path = base.path();
  if (base_path.empty()) {
    location.push_back('/');
    appendPercentEncodedPath(remainder, &location);
  } else if (remainder.empty()) {
    // As it was given, a slash at its end included.
    location.append(text, end, std::min(text.find_first_of("?#", end), text.size()) - end);
  } else {
    appendPercentEncodedPath(joinedPath(base_path, remainder), &location);
  }
  // As it was given: its items decoded and encoded anew would not be the same, "+" and "%2B" for instance.
  const std::string query = requested ? requested->query().value_or("") : "";
  if (!query.empty()) appendPercentEncodedQuery(query, &location.append("?"));
  return VELURL::URLWithString(location);
}

}  // namespace vel
