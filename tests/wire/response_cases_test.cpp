// Responses on the wire: framing, heads and bodies that end early, byte for byte. The responses are those
// of case_responses.cpp.
#include "wire/wire_case.h"

namespace vel::test {
namespace {

class ResponseCases : public WireTable {};
INSTANTIATE_WIRE_TABLE(ResponseCases);

using Texts = std::vector<std::string>;

std::string get(const std::string& name) { return head({"GET /responses/" + name + " HTTP/1.1"}); }

/// The answer to a GET has `body` and `fields`, and no field called one of `absent`.
WireCase got(const std::string& response, const std::string& body, const Texts& fields = {},
             const Texts& absent = {}) {
  return {response, get(response), {{200, body, fields, absent}}};
}

/// The answer to a HEAD has `field` and no body.
WireCase gotHead(const std::string& response, const std::string& field) {
  return {response, head({"HEAD /responses/" + response + " HTTP/1.1"}), {{200, "", {field}}}};
}

const std::string kChunked = "Transfer-Encoding: Chunked";

TEST_P(ResponseCases, AreFramedByLength) {
  run({
      got("data-large", std::string(1'000'000, 'd'), {"Content-Length: 1000000"},
          {"Transfer-Encoding"}),
      got("data-empty", "", {"Content-Length: 0", "Accept-Ranges: bytes"}),
      {"no body", get("plain"), {{204, "", {"Content-Length: 0"}}}},
      got("file-10", std::string(10, 'f'), {"Content-Length: 10"}),
      // One piece, and more than one.
      got("file-524288", std::string(524'288, 'f'), {"Content-Length: 524288"}),
      got("file-600000", std::string(600'000, 'f'), {"Content-Length: 600000"}),
      got("file-missing", "", {"Content-Length: 0"}),
  });
}

TEST_P(ResponseCases, AreChunked) {
  const ExpectedAnswer ten = {200, "a\r\n0123456789\r\n0\r\n\r\n", {kChunked}};
  run({
      got("chunked", "7\r\nHello, \r\n6\r\nall of\r\n4\r\n you\r\n0\r\n\r\n", {kChunked},
          {"Content-Length"}),
      {"one piece, twice", get("chunked-ten") + get("chunked-ten"), {ten, ten}},
  });
}

TEST_P(ResponseCases, SendNoBodyForHead) {
  run({
      gotHead("data-large", "Content-Length: 1000000"),
      gotHead("file-600000", "Content-Length: 600000"),
      gotHead("chunked", kChunked),
      // No body would come of it.
      gotHead("stream", "Content-Length: 5"),
  });
}

TEST_P(ResponseCases, MayEndEarlyAndLeaveTheConnectionOpen) {
  run({
      got("cut", "abcd", {"Content-Length: 10"}),
      got("unfinished", "Hello", {"Content-Length: 5"}),
      got("chunked-cut", "5\r\nHello\r\n", {kChunked}),
      got("chunked-nothing", "", {kChunked}),
      got("stream", "", {"Content-Length: 5"}),
      got("stream-chunked", "", {kChunked}),
      {"a request that asks to close",
       head({"GET /responses/cut HTTP/1.1", "Connection: close"}),
       {{200, "abcd"}},
       After::kClosed},
  });
}

TEST_P(ResponseCases, HaveTheLastWordOnTheirFields) {
  run({
      // Not the length of the body.
      got("length", "Hello", {"Content-Length: 7"}),
      got("fields", "Hello", {"Accept-Ranges: none", "Date: then", "X-A: b"}),
      {"a close that is only announced",
       get("bad-request"),
       {{400, "", {"Connection: close", "Content-Length: 0"}}}},
  });
}

TEST_P(ResponseCases, CannotBreakTheirHead) {
  run({
      // Line ends and NUL in a value, line ends in the reason phrase.
      got("injected", "Hello", {"X-A: a  X-Injected: b c"}, {"X-Injected"}),
      got("description-injected", "Hello", {}, {"X-Injected"}),
  });
}

}  // namespace
}  // namespace vel::test
