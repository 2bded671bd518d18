// Heads of answers, and the comparison of long bodies block by block.
#include "load_answer.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>

namespace bench {
namespace {

constexpr std::size_t kBlock = std::size_t{64} * 1024;

}  // namespace

std::optional<AnswerHead> readAnswerHead(std::string_view bytes) {
  constexpr std::string_view kName = "\nContent-Length:";
  const std::size_t end = bytes.find("\r\n\r\n");
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view text = bytes.substr(0, end + 2);
  AnswerHead head;
  head.length = end + 4;
  for (std::size_t line = text.find('\n'); line + kName.size() < text.size();
       line = text.find('\n', line + 1)) {
    if (strncasecmp(text.data() + line, kName.data(), kName.size()) != 0) continue;
    head.bodyLength = std::strtoull(text.data() + line + kName.size(), nullptr, 10);
    head.good = text.substr(0, 13) == "HTTP/1.1 200 ";
    break;
  }
  return head;
}

RepeatedBody::RepeatedBody(std::string_view text) : period_(std::max<std::size_t>(1, text.size())) {
  if (text.empty()) block_.assign(kBlock, '\0');
  while (block_.size() < kBlock) block_.append(text);
}

bool RepeatedBody::matches(std::uint64_t offset, std::string_view bytes) const {
  while (!bytes.empty()) {
    const std::string_view expected =
        std::string_view(block_).substr(static_cast<std::size_t>(offset % period_));
    const std::size_t length = std::min(expected.size(), bytes.size());
    if (bytes.substr(0, length) != expected.substr(0, length)) return false;
    bytes.remove_prefix(length);
    offset += length;
  }
  return true;
}

}  // namespace bench
