#include "http/range_head.h"

#include "corvane/uuid.h"

namespace vel {

std::string contentRange(VELRange range, uint64_t total) {
  return "bytes " + std::to_string(range.location) + '-' +
         std::to_string(range.location + range.length - 1) + '/' + std::to_string(total);
}

MultipartFraming::MultipartFraming(uint64_t total)
    : total_(total), boundary_(VELUUID::UUID().UUIDString()) {}

std::string MultipartFraming::contentType() const {
  return "multipart/byteranges; boundary=" + boundary_;
}

std::string MultipartFraming::partHeader(VELRange range) const {
  return "\r\n--" + boundary_ + "\r\nContent-Range: " + contentRange(range, total_) + "\r\n\r\n";
}

std::string MultipartFraming::closingDelimiter() const { return "\r\n--" + boundary_ + "--\r\n"; }

uint64_t MultipartFraming::bodyLength(std::span<const VELRange> ranges) const {
  uint64_t length = closingDelimiter().size();
  for (const VELRange range : ranges) length += partHeader(range).size() + range.length;
  return length;
}

}  // namespace vel
