// The opening handshake of WebSockets. The input is an answer up to its first empty line, a list of
// subprotocols, and the fields, a line each, that a host gives to a request.
#include "websocket/opening_handshake.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ascii.h"
#include "support/exact_copy.h"
#include "support/plain_head.h"
#include "support/plain_text.h"
#include "support/require.h"
#include "support/silent_log.h"

namespace vel::fuzz {
namespace {

void checkAnswer(std::string_view input) {
  const size_t end = input.find("\r\n\r\n");
  if (end == std::string_view::npos) return;
  const ExactCopy head(input.substr(0, end + 4));
  PlainHead plain;
  const size_t length = plain.appendLinesOf(head.view());
  const bool is_accepted = plain.progress == HeadProgress::kComplete &&
                           length == head.view().size() && !plain.is_request &&
                           (plain.status == 101 || plain.status == 200);
  const UpgradeAnswer answer = parseUpgradeAnswer(head.view());
  require(answer.isAccepted == is_accepted, "whether there is a session");
  require(!is_accepted || answer.protocol == plain.value("Sec-WebSocket-Protocol"),
          "the subprotocol");
}

void checkProtocols(std::string_view list) {
  std::vector<std::string> expected;
  for (const std::string_view part : plainlySplit(list, ',')) {
    if (!trimmed(part).empty()) expected.emplace_back(trimmed(part));
  }
  require(offeredProtocols(ExactCopy(list).view()) == expected, "the subprotocols");
}

void checkRequest(std::string_view input) {
  VELURLRequest request(*VELURL::URLWithString("ws://h/"));
  for (const std::string_view line : plainlySplit(input, '\n')) {
    const std::string_view name = line.substr(0, line.find(':'));
    std::string value(line.substr(std::min(line.size(), name.size() + 1)));
    // "\r" stands for CR LF.
    for (size_t at = 0; (at = value.find('\r', at)) != std::string::npos; at += 2) {
      value.insert(at + 1, 1, '\n');
    }
    if (!equalsIgnoringCase(name, "Content-Length")) {
      request.addValueForHTTPHeaderField(value, name);
    }
  }
  const std::string wire = upgradeRequest(request, std::string(input)).messageData().string();
  PlainHead plain;
  require(plain.appendLinesOf(wire) == wire.size(), "one head and nothing after it");
  require(plain.progress == HeadProgress::kComplete && plain.method == "GET" && plain.target == "/",
          "the request line");
  require(plain.value("Upgrade") == "websocket", "the field Upgrade");
  require(plain.value("Connection") == "Upgrade", "the field Connection");
  require(plain.value("Sec-WebSocket-Version") == "13", "the version");
  require(plain.value("Sec-WebSocket-Key")->size() == 24, "the key");
  size_t others = 0;
  for (const auto& [name, value] : plain.fields) {
    others += request.valueForHTTPHeaderField(name).has_value() ? 1 : 0;
  }
  require(others == request.allHTTPHeaderFields().size() && plain.fields.size() <= others + 5,
          "as many fields as were given");
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::silenceLog();
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  vel::fuzz::checkAnswer(input);
  vel::fuzz::checkProtocols(input);
  vel::fuzz::checkRequest(input);
  return 0;
}
