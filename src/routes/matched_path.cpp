#include "routes/matched_path.h"

#include <optional>

namespace vel {

std::string pathBehindMatch(const VELRequest& request) {
  std::string path = request.path();
  if (const std::optional<VELTextCheckingResult> match = request.textCheckingResult()) {
    const VELTextRange range = match->range();
    const std::string matched =
        range.location < path.size() ? path.substr(range.location, range.length) : "";
    if (path.starts_with(matched)) path.erase(0, matched.size());
  }
  if (path.starts_with('/')) path.erase(0, 1);
  return path;
}

}  // namespace vel
