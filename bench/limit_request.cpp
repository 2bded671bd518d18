// Heads searched as text, bodies by length and in chunks without extensions or trailers.
#include "limit_request.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>

namespace bench {
namespace {

constexpr std::string_view kLength = "\r\nContent-Length:";
constexpr std::string_view kChunked = "\r\nTransfer-Encoding: chunked\r\n";

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

std::size_t find(std::string_view head, std::string_view text) {
  const auto same = [](char one, char other) { return lower(one) == lower(other); };
  const auto found = std::search(head.begin(), head.end(), text.begin(), text.end(), same);
  return found == head.end() ? std::string_view::npos
                             : static_cast<std::size_t>(found - head.begin());
}

}  // namespace

bool contains(std::string_view head, std::string_view text) {
  return find(head, text) != std::string_view::npos;
}

std::size_t RequestReader::read(std::string_view bytes) {
  std::size_t used = 0;
  while (used < bytes.size() && state_ != State::kComplete) {
    const std::string_view rest = bytes.substr(used);
    if (state_ == State::kHead) {
      used += readHead(rest);
    } else if (state_ == State::kSize) {
      used += readSize(rest);
    } else {
      const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(rest.size(), remaining_));
      remaining_ -= taken;
      used += taken;
    }
    if (state_ == State::kBody && remaining_ == 0) endBody();
  }
  return used;
}

void RequestReader::endBody() {
  state_ = chunked_ && !lastChunk_ ? State::kSize : State::kComplete;
}

std::size_t RequestReader::readHead(std::string_view bytes) {
  const std::size_t before = head_.size();
  head_.append(bytes);
  const std::size_t end = head_.find("\r\n\r\n", before < 3 ? 0 : before - 3);
  if (end == std::string::npos) return bytes.size();
  head_.resize(end + 4);
  chunked_ = contains(head_, kChunked);
  const std::size_t length = find(head_, kLength);
  if (length != std::string_view::npos) {
    remaining_ = std::strtoull(head_.c_str() + length + kLength.size(), nullptr, 10);
    bodyLength_ = remaining_;
  }
  state_ = chunked_ ? State::kSize : State::kBody;
  return head_.size() - before;
}

std::size_t RequestReader::readSize(std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (c == '\n') {
      bodyLength_ += remaining_;
      lastChunk_ = remaining_ == 0;
      remaining_ += 2;
      state_ = State::kBody;
      return i + 1;
    }
    if (c == '\r') continue;
    const int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
    remaining_ = remaining_ * 16 + static_cast<std::uint64_t>(digit);
  }
  return bytes.size();
}

}  // namespace bench
