// Responses on the wire: framing, heads and bodies that end early, byte for byte.
#include <gmock/gmock.h>

#include "wire/wire_case.h"

namespace vel::test {
namespace {

class ResponseCases : public WireTable {};
INSTANTIATE_WIRE_TABLE(ResponseCases);

std::string get(const std::string& name) { return head({"GET /responses/" + name + " HTTP/1.1"}); }
std::string headOf(const std::string& name) {
  return head({"HEAD /responses/" + name + " HTTP/1.1"});
}

TEST_P(ResponseCases, AreFramedByLength) {
  run({
      {"data in two pieces",
       get("data-large"),
       {{200, std::string(1'000'000, 'd'), {"Content-Length: 1000000"}, {"Transfer-Encoding"}}}},
      {"no data", get("data-empty"), {{200, "", {"Content-Length: 0"}}}},
      {"no body", get("plain"), {{204, "", {"Content-Length: 0"}}}},
      {"a file", get("file-10"), {{200, std::string(10, 'f'), {"Content-Length: 10"}}}},
      {"a file of exactly one piece",
       get("file-524288"),
       {{200, std::string(524'288, 'f'), {"Content-Length: 524288"}}}},
      {"a file of more than one piece",
       get("file-600000"),
       {{200, std::string(600'000, 'f'), {"Content-Length: 600000"}}}},
      {"a missing file", get("file-missing"), {{200, "", {"Content-Length: 0"}}}},
  });
}

TEST_P(ResponseCases, AreChunked) {
  const std::string chunked = "Transfer-Encoding: Chunked";
  run({
      {"three pieces",
       get("chunked"),
       {{200,
         "7\r\nHello, \r\n6\r\nall of\r\n4\r\n you\r\n0\r\n\r\n",
         {chunked},
         {"Content-Length"}}}},
      {"one piece", get("chunked-ten"), {{200, "a\r\n0123456789\r\n0\r\n\r\n", {chunked}}}},
      {"twice",
       get("chunked-ten") + get("chunked-ten"),
       {{200, "a\r\n0123456789\r\n0\r\n\r\n", {chunked}},
        {200, "a\r\n0123456789\r\n0\r\n\r\n", {chunked}}}},
  });
}

TEST_P(ResponseCases, SendNoBodyForHead) {
  run({
      {"data", headOf("data-large"), {{200, "", {"Content-Length: 1000000"}}}},
      {"a file", headOf("file-600000"), {{200, "", {"Content-Length: 600000"}}}},
      {"chunks", headOf("chunked"), {{200, "", {"Transfer-Encoding: Chunked"}}}},
      {"what no body would come of", headOf("stream"), {{200, "", {"Content-Length: 5"}}}},
  });
}

TEST_P(ResponseCases, MayEndEarlyAndLeaveTheConnectionOpen) {
  run({
      {"fewer bytes than announced", get("cut"), {{200, "abcd", {"Content-Length: 10"}}}},
      {"all bytes, and no word of the end",
       get("unfinished"),
       {{200, "Hello", {"Content-Length: 5"}}}},
      {"a chunk without a footer",
       get("chunked-cut"),
       {{200, "5\r\nHello\r\n", {"Transfer-Encoding: Chunked"}}}},
      {"no chunk at all", get("chunked-nothing"), {{200, "", {"Transfer-Encoding: Chunked"}}}},
      {"a stream", get("stream"), {{200, "", {"Content-Length: 5"}}}},
      {"a stream in chunks", get("stream-chunked"), {{200, "", {"Transfer-Encoding: Chunked"}}}},
      {"a request that asks to close",
       head({"GET /responses/cut HTTP/1.1", "Connection: close"}),
       {{200, "abcd"}},
       After::kClosed},
  });
}

TEST_P(ResponseCases, HaveTheLastWordOnTheirFields) {
  run({
      {"a length that is not the body's", get("length"), {{200, "Hello", {"Content-Length: 7"}}}},
      {"fields of the connection's",
       get("fields"),
       {{200, "Hello", {"Accept-Ranges: none", "Date: then", "X-A: b"}}}},
      {"the connection's own", get("data-empty"), {{200, "", {"Accept-Ranges: bytes"}}}},
      {"a close that is only announced",
       get("bad-request"),
       {{400, "", {"Connection: close", "Content-Length: 0"}}}},
  });
}

TEST_P(ResponseCases, CannotBreakTheirHead) {
  run({
      {"line ends and NUL in a value",
       get("injected"),
       {{200, "Hello", {"X-A: a  X-Injected: b c"}, {"X-Injected"}}}},
      {"line ends in the reason phrase",
       get("description-injected"),
       {{200, "Hello", {}, {"X-Injected"}}}},
  });
}

TEST(ResponseHead, HasADateAndTheReasonPhrase) {
  TestServer server([](VELConfiguration& configuration) {
    configuration.addRoute(blockRoute("/", [](VELRoute&, const std::shared_ptr<VELRequest>& request,
                                              const VELResponseHandler& respond) {
      auto response = textResponse("Hello");
      if (request->path() == "/own") response->setStatusDescription("Perfectly fine");
      respond(response);
    }));
  });
  const auto client = server.connect();
  const Answer answer = client->exchange(head({"GET / HTTP/1.1"}));
  EXPECT_EQ(answer.reason, "OK");
  // RFC 9110 §5.6.7: day name, date and time of day in GMT.
  EXPECT_THAT(answer.value("Date").value_or(""),
              ::testing::MatchesRegex("[A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} [0-9]{4} "
                                      "[0-9]{2}:[0-9]{2}:[0-9]{2} GMT"));
  EXPECT_EQ(client->exchange(head({"GET /own HTTP/1.1"})).reason, "Perfectly fine");
  EXPECT_EQ(client->exchange(head({"GET /missing HTTP/1.1"})).reason, "OK");
}

}  // namespace
}  // namespace vel::test
