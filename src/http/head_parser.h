// HeadParser: makes lines of the bytes of a head that arrive in any pieces. The grammar of a line stands
// in head_grammar.h, where its text is kept in message_head.h.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "http/message_head.h"

namespace vel {

/// Cuts bytes into the lines of a head. A line ends with LF; CR before it belongs to the end.
class HeadParser {
 public:
  /// Feeds `bytes` to `head`, up to the end of the head; `consumed` becomes how many bytes that were.
  HeadProgress appendData(std::string_view bytes, MessageHead* head, size_t* consumed);

 private:
  // The line that has no end yet.
  std::string partial_;
};

}  // namespace vel
