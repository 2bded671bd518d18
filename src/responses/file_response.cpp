// VELFileResponse: a body that is sent out of a file, piece by piece.
#include <algorithm>

#include "corvane/responses.h"
#include "platform/file.h"
#include "platform/file_region.h"

namespace {

// How much is read at most where the size of the file does not tell.
constexpr uint64_t kLargestRead = 524'288;

VELData readPiece(const vel::FileDescriptor& file, uint64_t position, uint64_t length) {
  const auto capacity = static_cast<size_t>(std::min(length, kLargestRead));
  const auto storage = std::make_shared_for_overwrite<uint8_t[]>(capacity);
  const ptrdiff_t count = vel::readAt(file, storage.get(), capacity, position);
  if (count <= 0) return {};
  return VELData::dataWithOwner(storage, storage.get(), static_cast<size_t>(count));
}

}  // namespace

VELFileResponse::VELFileResponse() = default;
VELFileResponse::~VELFileResponse() = default;

const VELURL& VELFileResponse::fileURL() const {
  if (!path_.empty()) {
    file_url_ = file_url_.URLByAppendingPathComponent(path_);
    path_.clear();
  }
  return file_url_;
}

void VELFileResponse::setFileURL(VELURL fileURL) {
  file_url_ = std::move(fileURL);
  path_.clear();
}

std::shared_ptr<VELResponse> VELFileResponse::copy() const {
  auto copy = std::make_shared<VELFileResponse>();
  copyPropertiesTo(*copy);
  copy->file_url_ = fileURL();
  copy->file_ = file_;
  copy->size_ = size_;
  copy->position_ = offset();
  return copy;
}

void VELFileResponse::setOffset(uint64_t offset) {
  VELResponse::setOffset(offset);
  position_ = offset;
  at_end_ = false;
}

VELData VELFileResponse::readDataOfLength(uint64_t length) {
  VELData piece;
  if (openFile()) {
    if (size_ == 0) {
      piece = readPiece(*file_, position_, length);
    } else {
      // A file that has become shorter ends there.
      if (position_ > offset()) size_ = std::min(size_, vel::fileSize(*file_).value_or(0));
      const uint64_t rest = size_ - std::min(size_, position_);
      piece = vel::FileRegion::dataWithRegion(file_, position_,
                                              static_cast<size_t>(std::min(length, rest)));
    }
  }
  position_ += piece.length();
  if (piece.length() < length) at_end_ = true;
  return piece;
}

bool VELFileResponse::isFinished() const { return at_end_; }

void VELFileResponse::connectionDidClose() { file_.reset(); }

bool VELFileResponse::openFile() {
  if (file_) return true;
  vel::FileDescriptor file = vel::openForReading(fileURL().filePath());
  if (!file) return false;
  size_ = vel::fileSize(file).value_or(0);
  file_ = std::make_shared<const vel::FileDescriptor>(std::move(file));
  position_ = offset();
  return true;
}
