// VELFileResponse: a body that is read out of a file, piece by piece.
#include <algorithm>

#include "corvane/responses.h"
#include "platform/file.h"

namespace {

// How much is read at most where the size of the file does not tell.
constexpr uint64_t kLargestRead = 524'288;

}  // namespace

VELFileResponse::VELFileResponse() = default;
VELFileResponse::~VELFileResponse() = default;

std::shared_ptr<VELResponse> VELFileResponse::copy() const {
  auto copy = std::make_shared<VELFileResponse>();
  copyPropertiesTo(*copy);
  copy->file_url_ = file_url_;
  return copy;
}

void VELFileResponse::setOffset(uint64_t offset) {
  VELResponse::setOffset(offset);
  position_ = offset;
  at_end_ = false;
}

VELData VELFileResponse::readDataOfLength(uint64_t length) {
  size_t count = 0;
  VELData piece;
  if (openFile()) {
    const size_t capacity = sizeOfNextPiece(length);
    const auto storage = std::make_shared_for_overwrite<uint8_t[]>(capacity);
    const ptrdiff_t result = vel::readAt(*file_, storage.get(), capacity, position_);
    if (result > 0) {
      count = static_cast<size_t>(result);
      piece = VELData::dataWithOwner(storage, storage.get(), count);
    }
  }
  position_ += count;
  if (count < length) at_end_ = true;
  return piece;
}

bool VELFileResponse::isFinished() const { return at_end_; }

void VELFileResponse::connectionDidClose() { file_.reset(); }

bool VELFileResponse::openFile() {
  if (file_) return true;
  vel::FileDescriptor file = vel::openForReading(file_url_.filePath());
  if (!file) return false;
  file_ = std::make_unique<vel::FileDescriptor>(std::move(file));
  position_ = offset();
  return true;
}

/// How many bytes to ask for, so that the last piece of a file does not allocate a whole one.
size_t VELFileResponse::sizeOfNextPiece(uint64_t length) const {
  // Files that the kernel makes up say that they are empty.
  const uint64_t size = vel::fileSize(*file_).value_or(0);
  if (size == 0) return static_cast<size_t>(std::min(length, kLargestRead));
  return static_cast<size_t>(std::min(length, size - std::min(size, position_)));
}
