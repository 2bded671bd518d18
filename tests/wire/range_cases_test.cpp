// Ranges on the wire: which are sent, which are ignored, and where an answer is left stranded.
#include "support/digits_response.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

class RangeCases : public WireTable {};
INSTANTIATE_WIRE_TABLE(RangeCases);

std::string get(const std::string& name, const std::string& range) {
  return head({"GET /responses/" + name + " HTTP/1.1", "Range: " + range});
}

TEST_P(RangeCases, AreSent) {
  run({
      {"one byte",
       get("digits", "bytes=3-3"),
       {{206, "3", {"Content-Length: 1", "Content-Range: bytes 3-3/20"}}}},
      {"of a file",
       get("digits-file", "bytes=599998-"),
       {{206,
         "89",
         {"Content-Length: 2", "Content-Range: bytes 599998-599999/600000",
          "Content-Type: text/plain"}}}},
      {"a piece of a file",
       get("digits-file", "bytes=1-524288"),
       {{206, digits(1, 524'288), {"Content-Length: 524288"}}}},
      {"no byte",
       get("digits", "bytes=-0"),
       {{206, "", {"Content-Length: 0", "Content-Range: bytes 20-19/20"}}}},
      {"no byte of an empty body, whose own length stands",
       get("data-empty", "bytes=-0"),
       {{206, "", {"Content-Length: 0", "Content-Range: bytes 0-18446744073709551615/0"}}}},
      {"of data, which begins where it is and tells its own length",
       get("fields", "bytes=3-4"),
       {{206, "He", {"Content-Length: 5", "Content-Range: bytes 3-4/5"}}}},
      {"whatever the status",
       get("plain", "bytes=-0"),
       {{206, "", {"Content-Range: bytes 0-18446744073709551615/0"}}}},
      {"several, pipelined",
       get("digits", "bytes=1") + get("digits", "bytes=2-4"),
       {{206, "1"}, {206, "234"}}},
      {"more than a piece",
       get("digits-file", "bytes=10-"),
       {{206, digits(10, 599'990), {"Content-Length: 599990"}}},
       After::kStranded},
  });
}

TEST_P(RangeCases, AreIgnored) {
  const ExpectedAnswer whole = {200, digits(0, 20), {"Content-Length: 20"}, {"Content-Range"}};
  run({
      {"beyond the end", get("digits", "bytes=0-20"), {whole}},
      {"overlapping", get("digits", "bytes=0-4,4-5"), {whole}},
      {"another unit", get("digits", "items=0-4"), {whole}},
      {"one is wrong", get("digits", "bytes=0-4,x"), {whole}},
      {"in chunks",
       get("digits-chunked", "bytes=0-4"),
       {{200,
         "14\r\n" + digits(0, 20) + "\r\n0\r\n\r\n",
         {"Transfer-Encoding: Chunked"},
         {"Content-Range"}}}},
      {"no response", head({"GET /nowhere HTTP/1.1", "Range: bytes=-0"}), {{404, ""}}},
  });
}

TEST_P(RangeCases, SendNoBodyForHead) {
  run({
      {"one",
       head({"HEAD /responses/digits-file HTTP/1.1", "Range: bytes=10-"}),
       {{206, "", {"Content-Length: 599990", "Content-Range: bytes 10-599999/600000"}}}},
      {"two",
       head({"HEAD /responses/digits HTTP/1.1", "Range: bytes=0,2"}),
       {{206, "", {"Content-Length: 192"}, {"Content-Range"}}}},
      {"ignored",
       head({"HEAD /responses/digits HTTP/1.1", "Range: bytes=20"}),
       {{200, "", {"Content-Length: 20"}}}},
  });
}

class SeveralRanges : public ::testing::TestWithParam<Transport> {
 protected:
  // The body of two parts, up to where the bytes of the first end.
  static std::string firstPart(const std::string& boundary) {
    return "\r\n--" + boundary + "\r\nContent-Range: bytes 0-1/20\r\n\r\n";
  }
  static std::string boundaryOf(const AnswerHead& head) {
    const std::string type = head.value("Content-Type").value_or("");
    const std::string expected = "multipart/byteranges; boundary=";
    EXPECT_TRUE(type.starts_with(expected)) << type;
    EXPECT_EQ(type.size(), expected.size() + 36);
    return type.substr(expected.size());
  }

  TestServer server_{{.transport = GetParam()}, [](VELConfiguration& configuration) {
                       const auto add = [&](const char* path, bool moves) {
                         configuration.addRoute(
                             blockRoute(path, [moves](VELRoute&, const auto&, const auto& respond) {
                               respond(std::make_shared<DigitsResponse>(20, moves));
                             }));
                       };
                       add("/moving", true);
                       add("/staying", false);
                     }};
};
INSTANTIATE_WIRE_TABLE(SeveralRanges);

TEST_P(SeveralRanges, AreSentInOrderIfTheResponseMoves) {
  const auto client = server_.connect();
  const std::string request = head({"GET /moving HTTP/1.1", "Range: bytes=18-, 0-1"});
  const Answer answer = client->exchange(request);
  EXPECT_EQ(answer.status, 206);
  const std::string boundary = boundaryOf(answer);
  EXPECT_EQ(answer.body, firstPart(boundary) + "01\r\n--" + boundary +
                             "\r\nContent-Range: bytes 18-19/20\r\n\r\n89\r\n--" + boundary +
                             "--\r\n");
  EXPECT_NE(boundaryOf(client->exchange(request)), boundary);
  EXPECT_TRUE(TestServer::isServed(*client));
}

TEST_P(SeveralRanges, AreLeftAfterTheFirstIfItStays) {
  const auto client = server_.connect();
  client->send(head({"GET /staying HTTP/1.1", "Range: bytes=0-1,18-"}));
  client->wire().finishSending();
  const AnswerHead answer = client->readHead();
  EXPECT_EQ(answer.status, 206);
  EXPECT_EQ(client->readToEnd(), firstPart(boundaryOf(answer)) + digits(0, 20));
  EXPECT_TRUE(server_.waitForConnections(0));
}

}  // namespace
}  // namespace vel::test
