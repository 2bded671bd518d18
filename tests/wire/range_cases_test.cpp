// Ranges on the wire: which are sent, which are ignored, and where an answer is left stranded.
#include "support/digits_response.h"
#include "wire/case_routes.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

class RangeCases : public WireTable {};
INSTANTIATE_WIRE_TABLE(RangeCases);

std::string get(const std::string& name, const std::string& range) {
  return head({"GET /responses/" + name + " HTTP/1.1", "Range: " + range});
}

/// The answer to a GET of the response of that name is a part, `body`.
WireCase part(const std::string& response, const std::string& range, const std::string& body,
              const std::vector<std::string>& fields, After after = After::kOpen) {
  return {response + ", " + range, get(response, range), {{206, body, fields}}, after};
}

TEST_P(RangeCases, AreSent) {
  const std::string of_nothing = "Content-Range: bytes 0-18446744073709551615/0";
  run({
      part("digits", "bytes=3-3", "3", {"Content-Length: 1", "Content-Range: bytes 3-3/20"}),
      part("digits-file", "bytes=599998-", "89",
           {"Content-Length: 2", "Content-Range: bytes 599998-599999/600000",
            "Content-Type: text/plain"}),
      part("digits-file", "bytes=1-524288", digits(1, 524'288), {"Content-Length: 524288"}),
      part("digits", "bytes=-0", "", {"Content-Length: 0", "Content-Range: bytes 20-19/20"}),
      part("data-empty", "bytes=-0", "", {"Content-Length: 0", of_nothing}),
      // Data begins where it is, and tells its own length.
      part("fields", "bytes=3-4", "He", {"Content-Length: 5", "Content-Range: bytes 3-4/5"}),
      // Whatever the status.
      part("plain", "bytes=-0", "", {of_nothing}),
      {"several, pipelined",
       get("digits", "bytes=1") + get("digits", "bytes=2-4"),
       {{206, "1"}, {206, "234"}}},
      // More than a piece.
      part("digits-file", "bytes=10-", digits(10, 599'990), {"Content-Length: 599990"},
           After::kStranded),
  });
}

TEST_P(RangeCases, AreIgnored) {
  const ExpectedAnswer whole = {200, digits(0, 20), {"Content-Length: 20"}, {"Content-Range"}};
  const std::string chunk = "14\r\n" + digits(0, 20) + "\r\n0\r\n\r\n";
  const std::string chunked = "Transfer-Encoding: Chunked";
  run({
      {"beyond the end", get("digits", "bytes=0-20"), {whole}},
      {"one is wrong", get("digits", "bytes=0-4,x"), {whole}},
      {"in chunks",
       get("digits-chunked", "bytes=0-4"),
       {{200, chunk, {chunked}, {"Content-Range"}}}},
      {"no response", head({"GET /nowhere HTTP/1.1", "Range: bytes=-0"}), {{404, ""}}},
  });
}

TEST_P(RangeCases, SendNoBodyForHead) {
  const auto headOnly = [](const std::string& response, const std::string& range,
                           const ExpectedAnswer& expected) {
    return WireCase{
        range, head({"HEAD /responses/" + response + " HTTP/1.1", "Range: " + range}), {expected}};
  };
  run({
      headOnly("digits-file", "bytes=10-",
               {206, "", {"Content-Length: 599990", "Content-Range: bytes 10-599999/600000"}}),
      headOnly("digits", "bytes=0,2", {206, "", {"Content-Length: 192"}, {"Content-Range"}}),
      headOnly("digits", "bytes=20", {200, "", {"Content-Length: 20"}}),
  });
}

class SeveralRanges : public ::testing::TestWithParam<Transport> {};
INSTANTIATE_WIRE_TABLE(SeveralRanges);

TEST_P(SeveralRanges, AreSentInOrderWithABoundaryOfTheirOwn) {
  TestServer server({.transport = GetParam()}, addCaseRoutes);
  const auto client = server.connect();
  std::string last_boundary;
  for (int request = 0; request < 2; ++request) {
    const Answer answer = client->exchange(get("digits-moving", "bytes=18-, 0-1"));
    EXPECT_EQ(answer.status, 206);
    const std::string type = answer.value("Content-Type").value_or("");
    const std::string expected = "multipart/byteranges; boundary=";
    ASSERT_TRUE(type.starts_with(expected)) << type;
    const std::string boundary = type.substr(expected.size());
    EXPECT_EQ(boundary.size(), 36U);
    EXPECT_EQ(answer.body, "\r\n--" + boundary + "\r\nContent-Range: bytes 0-1/20\r\n\r\n01\r\n--" +
                               boundary + "\r\nContent-Range: bytes 18-19/20\r\n\r\n89\r\n--" +
                               boundary + "--\r\n");
    EXPECT_NE(boundary, last_boundary);
    last_boundary = boundary;
  }
  EXPECT_TRUE(TestServer::isServed(*client));
}

TEST_P(SeveralRanges, AreLeftAfterTheFirstIfTheResponseStays) {
  TestServer server({.transport = GetParam()}, addCaseRoutes);
  const auto client = server.connect();
  client->send(get("digits", "bytes=0-1,18-"));
  client->wire().finishSending();
  EXPECT_EQ(client->readHead().status, 206);
  EXPECT_TRUE(client->readToEnd().ends_with("0-1/20\r\n\r\n" + digits(0, 20)));
  EXPECT_TRUE(server.waitForConnections(0));
}

}  // namespace
}  // namespace vel::test
