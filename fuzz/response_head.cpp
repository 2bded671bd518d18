// Heads of answers, whose texts a host may have taken from a request: whatever they are, what is
// written is one head with these fields and no others. The input is a description and then fields,
// a line each, as "name:value" with any bytes but LF.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/http_message.h"
#include "http/head_serialiser.h"
#include "platform/ascii.h"
#include "support/plain_head.h"
#include "support/plain_text.h"
#include "support/require.h"
#include "support/silent_log.h"

namespace vel::fuzz {
namespace {

std::string cleaned(std::string_view value) {
  std::string text(value);
  for (char& c : text) {
    if (isControl(c) && c != '\t') c = ' ';
  }
  return text;
}

void checkHead(std::string_view input) {
  const std::vector<std::string_view> lines = plainlySplit(input, '\n');
  const std::string description(lines[0]);
  ResponseHeadBuilder builder(200, description);
  builder.setOwnField("Server", "fuzz");
  VELHTTPMessage message = VELHTTPMessage::response(200, description, "HTTP/1.1");
  message.setValueForHeaderField("fuzz", "Server");
  PlainHead expected;
  expected.appendLine("HTTP/1.1 200 " + cleaned(description));
  std::map<std::string, size_t> places = {{"server", 0}};
  expected.fields = {{"Server", "fuzz"}};

  // With line ends in values as well: "\r" stands for CR LF.
  std::vector<std::string> values;
  values.reserve(lines.size());
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::string_view name = lines[i].substr(0, lines[i].find(':'));
    std::string value(lines[i].substr(std::min(lines[i].size(), name.size() + 1)));
    for (size_t at = 0; (at = value.find('\r', at)) != std::string::npos; at += 2) {
      value.insert(at + 1, 1, '\n');
    }
    values.push_back(std::move(value));
    if (equalsIgnoringCase(name, "Content-Length")) continue;
    builder.setField(name, values.back());
    message.setValueForHeaderField(values.back(), name);
    if (!isToken(name)) continue;
    const auto [place, is_new] = places.try_emplace(lowercased(name), expected.fields.size());
    if (is_new) expected.fields.emplace_back(name, "");
    expected.fields[place->second].second = trimmed(cleaned(values.back()));
  }
  expected.appendLine("");

  const std::string wire = builder.data().string();
  require(wire.size() == builder.size(), "the size of the head");
  for (const std::string& bytes : {wire, message.messageData().string()}) {
    PlainHead again;
    require(again.appendLinesOf(bytes) == bytes.size(), "one head and nothing after it");
    require(
        again.progress == HeadProgress::kComplete && again.fields.size() == expected.fields.size(),
        "as many fields as were set");
    for (size_t i = 0; i < again.fields.size(); ++i) {
      require(equalsIgnoringCase(again.fields[i].first, expected.fields[i].first), "the name");
      require(again.fields[i].second == expected.fields[i].second, "the value");
    }
    require(again.reason == expected.reason, "the description");
  }
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::silenceLog();
  vel::fuzz::checkHead({reinterpret_cast<const char*>(data), size});
  return 0;
}
