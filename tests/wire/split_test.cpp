// Requests that arrive in two pieces, cut at every byte.
#include "support/test_server.h"
#include "wire/case_routes.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

struct SplitCase {
  std::string name;
  std::string request;
  std::string body;
};

class SplitRequest : public ::testing::TestWithParam<Transport> {};
INSTANTIATE_WIRE_TABLE(SplitRequest);

TEST_P(SplitRequest, IsAnsweredLikeAWholeOne) {
  const std::vector<SplitCase> cases = {
      {"a head", head({"GET /describe?q=1 HTTP/1.1", "Host: a", "X-B:"}), "GET 0 none "},
      {"a body by length",
       head({"POST /describe HTTP/1.1", "Content-Length: 12"}) + "\r\nabc\r\n\r\nde\n",
       "POST 12 memory \r\nabc\r\n\r\nde\n"},
      {"chunks and a trailer",
       head({"PUT /describe HTTP/1.1", "Transfer-Encoding: chunked"}) +
           "3;a=b\r\nabc\r\nA\r\n0123456789\r\n00\r\nX: y\r\n\r\n",
       "PUT 13 memory abc0123456789"},
  };
  TestServer server({.transport = GetParam()}, addCaseRoutes);
  const auto client = server.connect();
  const auto other = server.connect();
  for (const SplitCase& split_case : cases) {
    for (size_t at = 1; at < split_case.request.size(); ++at) {
      SCOPED_TRACE(split_case.name + " cut at " + std::to_string(at));
      client->send(split_case.request.substr(0, at));
      // The server has one loop: once the other connection is answered, the first piece was read.
      ASSERT_TRUE(TestServer::isServed(*other));
      ASSERT_EQ(client->exchange(split_case.request.substr(at)).body, split_case.body);
    }
  }
}

TEST_P(SplitRequest, MayBringThePartOfTheNextOne) {
  const std::string request = head({"POST /describe HTTP/1.1", "Content-Length: 3"}) + "abc";
  const std::string stream = request + request + request;
  TestServer server({.transport = GetParam()}, addCaseRoutes);
  const auto client = server.connect();
  const auto other = server.connect();
  for (size_t size = 1; size < request.size() * 2; size += 3) {
    SCOPED_TRACE("pieces of " + std::to_string(size));
    for (size_t at = 0; at < stream.size(); at += size) {
      client->send(std::string_view(stream).substr(at, size));
      ASSERT_TRUE(TestServer::isServed(*other));
    }
    for (int answer = 0; answer < 3; ++answer) {
      ASSERT_EQ(client->readAnswer().body, "POST 3 memory abc");
    }
  }
}

}  // namespace
}  // namespace vel::test
