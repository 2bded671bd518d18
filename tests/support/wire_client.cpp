// Nothing is decoded: chunk framing is a part of what the tests look at.
#include "support/wire_client.h"

#include <charconv>
#include <stdexcept>
#include <utility>

#include "platform/ascii.h"

namespace vel::test {

std::optional<std::string> AnswerHead::value(std::string_view name) const {
  for (const std::string& field : fields) {
    const size_t colon = field.find(':');
    if (equalsIgnoringCase(std::string_view(field).substr(0, colon), name)) {
      const size_t begin = field.find_first_not_of(' ', colon + 1);
      return begin == std::string::npos ? std::string() : field.substr(begin);
    }
  }
  return std::nullopt;
}

void WireClient::require(bool isTrue, const char* what) const {
  if (!isTrue) throw std::runtime_error(std::string(what) + "; received: \"" + buffer_ + "\"");
}

AnswerHead WireClient::readHead() {
  size_t end;
  while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
    require(wire_->receive(buffer_), "the wire ended before the end of a head");
  }
  AnswerHead head;
  const size_t line_end = buffer_.find("\r\n");
  const std::string line = buffer_.substr(0, line_end);
  // VERSION SP STATUS SP REASON (RFC 9112 §4)
  require(line.starts_with("HTTP/") && line.size() >= 13 && line[8] == ' ' && line[12] == ' ',
          "what came is no answer");
  head.version = line.substr(0, 8);
  std::from_chars(line.data() + 9, line.data() + 12, head.status);
  head.reason = line.substr(13);
  for (size_t begin = line_end + 2; begin < end + 2;) {
    const size_t next = buffer_.find("\r\n", begin);
    head.fields.push_back(buffer_.substr(begin, next - begin));
    begin = next + 2;
  }
  buffer_.erase(0, end + 4);
  return head;
}

std::string WireClient::readBytes(size_t length) {
  while (buffer_.size() < length) {
    require(wire_->receive(buffer_), "the wire ended before the end of a body");
  }
  std::string bytes = buffer_.substr(0, length);
  buffer_.erase(0, length);
  return bytes;
}

Answer WireClient::readAnswer() {
  Answer answer;
  static_cast<AnswerHead&>(answer) = readHead();
  const std::string length = answer.value("Content-Length").value_or("0");
  size_t count = 0;
  std::from_chars(length.data(), length.data() + length.size(), count);
  answer.body = readBytes(count);
  return answer;
}

Answer WireClient::exchange(std::string_view request) {
  send(request);
  return readAnswer();
}

std::string WireClient::readToEnd() {
  while (wire_->receive(buffer_)) {
  }
  return std::exchange(buffer_, {});
}

}  // namespace vel::test
