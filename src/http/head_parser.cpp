// Lines out of pieces. A line that came whole is not copied here.
#include "http/head_parser.h"

namespace vel {

HeadProgress HeadParser::appendData(std::string_view bytes, MessageHead* head, size_t* consumed) {
  HeadProgress progress = head->progress();
  *consumed = 0;
  while (progress == HeadProgress::kNeedsMore && *consumed < bytes.size()) {
    const std::string_view rest = bytes.substr(*consumed);
    const size_t end = rest.find('\n');
    if (end == std::string_view::npos) {
      partial_.append(rest);
      *consumed = bytes.size();
      break;
    }
    const std::string_view line = rest.substr(0, end + 1);
    *consumed += line.size();
    if (partial_.empty()) {
      progress = head->appendLine(line);
    } else {
      partial_.append(line);
      progress = head->appendLine(partial_);
      partial_.clear();
    }
  }
  return progress;
}

}  // namespace vel
