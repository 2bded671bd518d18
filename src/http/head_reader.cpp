#include "http/head_reader.h"

#include <optional>

#include "http/habits.h"

namespace vel {

HeadStep HeadReader::didRead(std::string_view line, MessageHead* head, const VELLimits& limits) {
  const HeadProgress progress = head->appendLine(line);
  // A message may also begin with a status line, but a client does not send one.
  if (progress == HeadProgress::kMalformed || !head->isRequest()) return HeadStep::kMalformed;
  if (progress == HeadProgress::kComplete) return HeadStep::kComplete;
  ++lines_;
  return admitsLines(lines_, limits) ? HeadStep::kReadLine : HeadStep::kTooLong;
}

BodyFraming framingOf(const MessageHead& head) noexcept {
  if (isChunkedCoding(head.field(KnownField::kTransferEncoding))) {
    return {BodyFraming::Kind::kChunked};
  }
  const std::optional<std::string_view> field = head.field(KnownField::kContentLength);
  if (!field) return {};
  const std::optional<uint64_t> length = admittedContentLength(*field);
  if (!length) return {BodyFraming::Kind::kBadLength};
  if (*length == 0) return {};
  return {BodyFraming::Kind::kLength, *length};
}

}  // namespace vel
