// Message heads: read whole, in any pieces and plainly, they have the same parts; written and read
// again, too, and a field that is set can neither bring further ones nor change others.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "corvane/http_message.h"
#include "http/message_head.h"
#include "platform/ascii.h"
#include "support/exact_copy.h"
#include "support/pieces.h"
#include "support/plain_head.h"
#include "support/require.h"
#include "support/silent_log.h"

namespace vel::fuzz {
namespace {

constexpr unsigned kTurns = 3;
// One by one, more would only take time.
constexpr size_t kMostBytesOneByOne = 512;

struct Parsed {
  VELHTTPMessage message = VELHTTPMessage::emptyRequest();
  bool is_good = true;
};

Parsed parsed(std::string_view bytes) {
  Parsed result;
  result.is_good = result.message.appendData(bytes);
  return result;
}

Parsed parsedInPieces(std::string_view bytes, unsigned turn) {
  Parsed result;
  forEachPiece(bytes, turn, [&](std::string_view piece) {
    const ExactCopy copy(piece);
    const bool is_good = result.message.appendData(copy.view());
    require(result.is_good || !is_good, "a malformed message stays so");
    result.is_good = is_good;
  });
  return result;
}

bool isContentLength(std::string_view name) { return equalsIgnoringCase(name, "Content-Length"); }

/// What is asked for by name.
void checkLookup(const VELHTTPMessage& message, const PlainHead& plain) {
  require(message.URL().has_value() == (plain.has_start_line && plain.is_request), "the URL");
  const VELDictionary headers = message.headers();
  for (const auto& [name, value] : plain.fields) {
    const std::optional<std::string> found = message.valueForHeaderField(name);
    require(found.has_value(), "a field is found by its name");
    const auto entry = headers.find(name);
    require(entry != headers.end() && entry->second == *found, "the dictionary has the same value");
    std::string expected = *plain.value(name);
    if (isContentLength(name) && message.isHeaderComplete()) {
      expected = trimmed(std::string_view(expected).substr(0, expected.find(',')));
    }
    require(*found == expected, "the value is that of its lines");
  }
  for (const auto& [name, value] : headers) {
    require(plain.value(name).has_value(), "the dictionary has no field of its own");
  }
}

void checkSame(const Parsed& result, const PlainHead& plain, std::string_view body) {
  require(result.is_good == (plain.progress != HeadProgress::kMalformed),
          "whether it is malformed");
  const VELHTTPMessage& message = result.message;
  require(plainHeadOf(message.head()) == plain, "the parts of the head");
  require(!result.is_good || message.body().view() == body, "the bytes after the head");
}

/// Written and read again, `message` has the same parts and is written the same.
void checkRoundTrip(const VELHTTPMessage& message, const PlainHead& plain) {
  const std::string wire = message.messageData().string();
  const Parsed again = parsed(wire);
  checkSame(again, plain, message.body().view());
  checkLookup(again.message, plain);
  require(again.message.messageData().view() == wire, "what is written twice");
}

PlainHead withField(PlainHead plain, std::string_view value, std::string_view name) {
  std::string text(value);
  for (char& c : text) {
    if (isControl(c) && c != '\t') c = ' ';
  }
  const auto is_named = [&](const auto& field) { return equalsIgnoringCase(field.first, name); };
  const auto first = std::find_if(plain.fields.begin(), plain.fields.end(), is_named);
  if (first == plain.fields.end()) {
    plain.fields.emplace_back(name, trimmed(text));
  } else {
    first->second = trimmed(text);
    plain.fields.erase(std::remove_if(first + 1, plain.fields.end(), is_named), plain.fields.end());
  }
  return plain;
}

/// Sets a field to a piece of the input, under a name that may be another piece of it.
void checkSetting(const VELHTTPMessage& source, const PlainHead& plain, std::string_view bytes) {
  const std::string_view tail = bytes.substr(bytes.size() - std::min<size_t>(bytes.size(), 40));
  const std::string_view last =
      plain.fields.empty() ? std::string_view("X-New") : plain.fields.back().first;
  const std::string_view names[] = {last, tail.substr(0, tail.size() / 3), "Connection"};
  VELHTTPMessage copy = source.copy();
  PlainHead expected = plain;
  for (const std::string_view name : names) {
    // A host that sets lengths which differ has made a malformed message.
    if (isContentLength(name)) continue;
    copy.setValueForHeaderField(tail, name);
    if (isToken(name)) expected = withField(std::move(expected), tail, name);
  }
  const VELHTTPMessage moved = std::move(copy);
  const Parsed again = parsed(moved.messageData().view());
  checkSame(again, expected, moved.body().view());
  checkLookup(again.message, expected);
  require(plainHeadOf(source.head()) == plain, "a copy is independent");
}

/// Whether `part` is a place in `text` itself, not in another copy of it.
bool isWithin(std::string_view part, std::string_view text) {
  return part.empty() ||
         (part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size());
}

/// Copied and moved, into a head that was in use, everything is still there.
void checkMoves(const MessageHead& head, const PlainHead& plain) {
  MessageHead used;
  used.setResponse(200, "used", "HTTP/1.1");
  MessageHead copy(head);
  MessageHead moved(std::move(copy));
  used = std::move(moved);
  copy = used;
  copy.reserve(5000);
  for (const MessageHead* each : std::initializer_list<const MessageHead*>{&used, &copy}) {
    require(plainHeadOf(*each) == plain, "a head that was copied and moved");
    const RequestTarget& target = each->target();
    require(target.path == head.target().path, "the path of its target");
    require(target.query == head.target().query, "the query of its target");
    for (const std::string_view part :
         {target.scheme, target.host, target.port, target.query, target.fragment}) {
      require(isWithin(part, target.text), "a part of the target is in its own text");
    }
  }
}

/// A request that is built of what was received, and one whose method and version are any bytes.
void checkBuilding(const VELHTTPMessage& source, const PlainHead& plain, std::string_view bytes) {
  if (!plain.is_request) return;
  const VELURL url = *source.URL();
  const RequestTarget& target = source.head().target();
  PlainHead expected;
  expected.appendLine(plain.method + " / " + plain.version);
  expected.appendLine("");
  expected.target = plain.target;
  if (target.form == RequestTarget::Form::kAbsolute) {
    expected.target = target.path;
    if (target.hasQuery) expected.target.append(1, '?').append(target.query);
  }
  checkSame(parsed(VELHTTPMessage::request(plain.method, url, plain.version).messageData().view()),
            expected, {});

  const std::string wire = VELHTTPMessage::request(bytes, url, bytes).messageData().string();
  require(wire.find("\r\n") == wire.size() - 4, "a request line and an empty line");
  require(
      std::none_of(wire.begin(), wire.end() - 4, [](char c) { return isControl(c) && c != '\t'; }),
      "no control characters in a request line");
}

void checkMessage(std::string_view bytes) {
  PlainHead plain;
  const size_t consumed = plain.appendLinesOf(bytes);
  const bool is_complete = plain.progress == HeadProgress::kComplete;
  const std::string_view body = is_complete ? bytes.substr(consumed) : std::string_view();
  const Parsed whole = parsed(bytes);
  checkSame(whole, plain, body);
  if (whole.is_good) checkLookup(whole.message, plain);
  for (unsigned turn = bytes.size() > kMostBytesOneByOne ? 1 : 0; turn < kTurns; ++turn) {
    checkSame(parsedInPieces(bytes, turn), plain, body);
  }
  (void)whole.message.description();
  if (!is_complete) return;
  checkRoundTrip(whole.message, plain);
  checkSetting(whole.message, plain, bytes);
  checkMoves(whole.message.head(), plain);
  checkBuilding(whole.message, plain, bytes);
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::silenceLog();
  vel::fuzz::checkMessage({reinterpret_cast<const char*>(data), size});
  return 0;
}
