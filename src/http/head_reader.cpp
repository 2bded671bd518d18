#include "http/head_reader.h"

#include <optional>

#include "http/habits.h"

namespace vel {

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
