// WireClient: reads the answers that come over a wire, one after the other, byte for byte.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire.h"

namespace vel::test {

/// The head of an answer as it came.
struct AnswerHead {
  std::string version;
  int status = 0;
  std::string reason;
  /// Name, colon, blank and value of each field, in order.
  std::vector<std::string> fields;

  /// The value of the field called `name`, whatever the case of the name.
  std::optional<std::string> value(std::string_view name) const;
};

struct Answer : AnswerHead {
  std::string body;
};

class WireClient {
 public:
  explicit WireClient(std::unique_ptr<Wire> wire) : wire_(std::move(wire)) {}

  Wire& wire() { return *wire_; }
  bool send(std::string_view bytes) { return wire_->send(bytes); }

  /// Reads one head.
  /// Errors:  raises `std::runtime_error` when the wire ends first, or it is no head.
  AnswerHead readHead();
  /// Reads `length` bytes as they are.
  std::string readBytes(size_t length);
  /// Reads a head and as many bytes as its "Content-Length" says.
  Answer readAnswer();
  /// Sends `request` and reads one answer.
  Answer exchange(std::string_view request);
  /// Reads up to the end of the wire.
  std::string readToEnd();

 private:
  void require(bool isTrue, const char* what) const;

  std::unique_ptr<Wire> wire_;
  // Received, not yet read.
  std::string buffer_;
};

}  // namespace vel::test
