// VELStreamResponse: a body that a stream supplies.
#include <algorithm>
#include <memory>

#include "corvane/error.h"
#include "corvane/responses.h"

namespace {

// No caller asks for more at once, and a larger wish must not become a large allocation.
constexpr uint64_t kLargestRead = 524'288;

/// What reading an open stream gives to the connection. The bytes are read but not counted, which
/// is meant: a client sees the announced head and no body.
VELData readUncounted(VELInputStream& stream, uint64_t length) {
  const size_t capacity = static_cast<size_t>(std::min(length, kLargestRead));
  const auto storage = std::make_unique_for_overwrite<uint8_t[]>(capacity);
  stream.read(storage.get(), capacity);
  return {};
}

}  // namespace

VELStreamResponse::VELStreamResponse() = default;
VELStreamResponse::~VELStreamResponse() = default;

std::shared_ptr<VELResponse> VELStreamResponse::copy() const {
  throw VELException(VELInternalInconsistencyException, "A stream response cannot be copied");
}

VELData VELStreamResponse::readDataOfLength(uint64_t length) {
  if (!stream_) return {};
  switch (stream_->streamStatus()) {
    case VELStreamStatus::kNotOpen:
      stream_->open();
      return {};
    case VELStreamStatus::kOpen:
      return readUncounted(*stream_, length);
    default:
      return {};
  }
}

bool VELStreamResponse::isFinished() const {
  if (!stream_) return false;
  switch (stream_->streamStatus()) {
    case VELStreamStatus::kAtEnd:
    case VELStreamStatus::kClosed:
    case VELStreamStatus::kError:
      return true;
    default:
      return false;
  }
}

void VELStreamResponse::connectionDidClose() {
  if (stream_) stream_->close();
}
