// UploadBody: the body of a request on its way to a server, from memory or from a stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "corvane/data.h"
#include "corvane/input_stream.h"
#include "corvane/url_request.h"

namespace vel {

/// Owner:   the transfer.
class UploadBody {
 public:
  /// The body of `request`; a stream is opened, and closed in the end.
  explicit UploadBody(const VELURLRequest& request);
  ~UploadBody();
  UploadBody(const UploadBody&) = delete;
  UploadBody& operator=(const UploadBody&) = delete;

  /// Whether the request has a body, be it an empty one.
  bool exists() const noexcept { return data_.has_value() || stream_ != nullptr; }
  /// None when only the end of the stream will tell.
  std::optional<uint64_t> length() const noexcept { return length_; }
  /// Shape:   the count of bytes read; 0 at the end.
  /// Errors:  -1 when the stream fails, or ends before its length.
  ptrdiff_t read(void* buffer, size_t capacity);
  /// Back to the first byte. False for a stream that has been read from: it goes in one direction.
  bool rewind() noexcept;

 private:
  std::optional<VELData> data_;
  std::shared_ptr<VELInputStream> stream_;
  std::optional<uint64_t> length_;
  uint64_t position_ = 0;
};

}  // namespace vel
