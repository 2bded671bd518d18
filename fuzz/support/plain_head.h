// PlainHead: a message head read slowly and plainly, with one string for each part. It is written from
// RFC 9112 and shares nothing with MessageHead but the grammar of request targets, so that the two
// can be held against each other.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/message_head.h"

namespace vel::fuzz {

struct PlainHead {
  HeadProgress progress = HeadProgress::kNeedsMore;
  bool has_start_line = false;
  bool is_request = true;
  std::string method;
  std::string target;
  std::string version;
  int64_t status = 0;
  std::string reason;
  std::vector<std::pair<std::string, std::string>> fields;

  /// Two malformed heads are equal, whatever they held before.
  friend bool operator==(const PlainHead& a, const PlainHead& b);

  /// Takes one line, with or without its line end.
  void appendLine(std::string_view line);
  /// Takes the lines of `bytes` up to the end of the head; how many bytes those are. A last line
  /// without its LF is left.
  size_t appendLinesOf(std::string_view bytes);
  /// The values of all fields of that name, joined.
  std::optional<std::string> value(std::string_view name) const;
};

/// The same parts of a head of the library's.
PlainHead plainHeadOf(const MessageHead& head);

}  // namespace vel::fuzz
