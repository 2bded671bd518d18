#include "platform/upload_body.h"

#include <algorithm>
#include <cstring>

namespace vel {

UploadBody::UploadBody(const VELURLRequest& request)
    : data_(request.body()), stream_(request.bodyStream()) {
  if (stream_) {
    stream_->open();
    length_ = stream_->length();
  } else {
    length_ = data_ ? data_->length() : 0;
  }
}

UploadBody::~UploadBody() {
  if (stream_) stream_->close();
}

ptrdiff_t UploadBody::read(void* buffer, size_t capacity) {
  if (length_) capacity = static_cast<size_t>(std::min<uint64_t>(capacity, *length_ - position_));
  if (capacity == 0) return 0;
  ptrdiff_t count = static_cast<ptrdiff_t>(capacity);
  if (stream_) {
    count = stream_->read(static_cast<uint8_t*>(buffer), capacity);
    const bool ends_early = count == 0 && length_;
    if (count < 0 || ends_early) return -1;
  } else {
    std::memcpy(buffer, data_->bytes() + position_, capacity);
  }
  position_ += static_cast<uint64_t>(count);
  return count;
}

bool UploadBody::rewind() noexcept {
  if (stream_ && position_ > 0) return false;
  position_ = 0;
  return true;
}

}  // namespace vel
