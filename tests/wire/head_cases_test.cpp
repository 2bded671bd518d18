// Heads on the wire: what is accepted, what is refused and how, and what decides whether the
// connection stays open.
#include "wire/wire_case.h"

namespace vel::test {
namespace {

/// A line of `length` bytes, CR LF included, that begins with `start`.
std::string lineOfLength(const std::string& start, size_t length, const std::string& end = "") {
  return start + std::string(length - start.size() - end.size() - 2, 'a') + end + "\r\n";
}

/// The answer to a request that cannot be understood.
const ExpectedAnswer kInvalid = {400, "", {"Content-Length: 0", "Connection: close"}};
const ExpectedAnswer kHello = {200, "Hello", {"Content-Length: 5", "Content-Type: text/plain"}};

class HeadCases : public WireTable {};
INSTANTIATE_WIRE_TABLE(HeadCases);

TEST_P(HeadCases, FollowTheVersionAndTheConnectionField) {
  const auto request = [](std::string_view version, std::string_view connection) {
    const std::string line = "GET /text " + std::string(version);
    return connection.empty() ? head({line}) : head({line, connection});
  };
  run({
      {"1.1", request("HTTP/1.1", ""), {kHello}},
      {"1.1 keep-alive", request("HTTP/1.1", "Connection: keep-alive"), {kHello}},
      {"1.1 close", request("HTTP/1.1", "Connection: close"), {kHello}, After::kClosed},
      {"1.1 CLOSE", request("HTTP/1.1", "CONNECTION: CLOSE"), {kHello}, After::kClosed},
      {"1.1 close in a list", request("HTTP/1.1", "Connection: close, x"), {kHello}},
      {"1.1 no close is added", request("HTTP/1.1", ""), {{200, "Hello", {}, {"Connection"}}}},
      {"1.0", request("HTTP/1.0", ""), {kHello}, After::kClosed},
      {"1.0 keep-alive", request("HTTP/1.0", "Connection: keep-alive"), {kHello}},
      {"1.0 Keep-Alive", request("HTTP/1.0", "connection: Keep-Alive"), {kHello}},
      {"1.0 other", request("HTTP/1.0", "Connection: keep"), {kHello}, After::kClosed},
      {"another version", request("HTTP/1.2", ""), {{505, "", {"Content-Length: 0"}}}},
      {"another version, which is seen after the body",
       head({"POST /describe HTTP/2.0", "Content-Length: 3"}) + "abc",
       {{505, ""}}},
      {"another version stays open in spite of close",
       request("HTTP/2.0", "Connection: close"),
       {{505, "", {"Content-Length: 0"}, {"Connection"}}}},
  });
}

TEST_P(HeadCases, HaveLimits) {
  const std::string start = "GET /text HTTP/1.1\r\n";
  const std::string target = lineOfLength("GET /text?", 8190, " HTTP/1.1");
  run({
      {"99 fields", start + numberedFields(99) + "\r\n", {kHello}},
      {"100 fields", start + numberedFields(100) + "\r\n", {}, After::kClosed},
      {"100 fields and nothing more", start + numberedFields(100), {}, After::kClosed},
      {"a field of 8190 bytes", start + lineOfLength("X: ", 8190) + "\r\n", {kHello}},
      {"a field of 8191 bytes", start + lineOfLength("X: ", 8191) + "\r\n", {}, After::kClosed},
      {"8190 bytes without an end", start + std::string(8190, 'a'), {}, After::kClosed},
      {"a request line of 8190 bytes", target + "\r\n", {kHello}},
      {"a request line of 8191 bytes",
       lineOfLength("GET /text?", 8191, " HTTP/1.1") + "\r\n",
       {},
       After::kClosed},
      {"the limits begin again with each request",
       start + numberedFields(99) + "\r\n" + start + numberedFields(99) + "\r\n",
       {kHello, kHello}},
  });
}

TEST_P(HeadCases, MustBeWellFormed) {
  const auto refused = [](const std::string& name, const std::string& sent) {
    return WireCase{name, sent, {kInvalid}, After::kClosed};
  };
  run({
      refused("no version", "GET /text\r\n"),
      refused("one word", "nonsense\r\n"),
      refused("a status line", head({"HTTP/1.1 200 OK"})),
      refused("a bad escape in the path", head({"GET /%zz HTTP/1.1"})),
      refused("a field without a colon", "GET /text HTTP/1.1\r\nno field\r\n"),
      refused("a field without a name", "GET /text HTTP/1.1\r\n: value\r\n"),
      refused("a blank before the colon", "GET /text HTTP/1.1\r\nHost : a\r\n"),
      {"after a good request",
       head({"GET /text HTTP/1.1"}) + "nonsense\r\n",
       {kHello, kInvalid},
       After::kClosed},
  });
}

TEST_P(HeadCases, ArePipelined) {
  std::string many;
  std::vector<ExpectedAnswer> answers;
  for (int index = 0; index < 200; ++index) {
    many += index % 2 == 0 ? head({"GET /text HTTP/1.1"}) : head({"GET /first HTTP/1.1", "X: y"});
    answers.push_back(index % 2 == 0 ? kHello : ExpectedAnswer{200, "first"});
  }
  run({
      {"200 requests at once", many, answers},
      {"the last one closes",
       head({"GET /text HTTP/1.1"}) + head({"GET /text HTTP/1.1", "Connection: close"}),
       {kHello, kHello},
       After::kClosed},
      {"what follows a close is not answered",
       head({"GET /text HTTP/1.1", "Connection: close"}) + head({"GET /text HTTP/1.1"}),
       {kHello},
       After::kClosed},
      {"empty lines between",
       "\r\n" + head({"GET /text HTTP/1.1"}) + "\r\n\r\n" + head({"GET /text HTTP/1.1"}),
       {kHello, kHello}},
      {"a body between",
       head({"POST /describe HTTP/1.1", "Content-Length: 3"}) + "abc" +
           head({"GET /text HTTP/1.1"}),
       {{200, "POST 3 memory abc"}, kHello}},
  });
}

TEST_P(HeadCases, NameTheirTargetInTwoForms) {
  run({
      {"a path",
       head({"GET /absolute/?q=1 HTTP/1.1", "Host: a"}),
       {{200, "/absolute/?q=1 not secure"}}},
      {"an absolute URL",
       head({"GET http://a/absolute HTTP/1.1"}),
       {{200, "http://a/absolute not secure"}}},
      {"an absolute URL of the other scheme",
       head({"GET HTTPS://a/absolute HTTP/1.1"}),
       {{200, "HTTPS://a/absolute secure"}}},
      {"an escaped path", head({"GET /%74ext HTTP/1.1"}), {kHello}},
      {"a path of two slashes", head({"GET //text HTTP/1.1"}), {{404, ""}}},
  });
}

}  // namespace
}  // namespace vel::test
