// Files on the wire: what arrives of them however they are sent, and what becomes of those that change
// meanwhile.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "corvane/file_route.h"
#include "support/temporary_directory.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

/// Bytes of which no part repeats soon.
std::string contentOfLength(size_t length) {
  std::string content;
  for (size_t i = 0; content.size() < length; ++i) content += std::to_string(i) + ' ';
  content.resize(length);
  return content;
}

class ServedFiles : public ::testing::TestWithParam<Transport> {
 protected:
  std::string file(const std::string& name, size_t length) const {
    const std::string content = contentOfLength(length);
    std::ofstream(directory_.path(name), std::ios::binary) << content;
    return content;
  }
  static std::string get(const std::string& name) {
    return "GET /files/" + name + " HTTP/1.1\r\nHost: test\r\n\r\n";
  }

  TemporaryDirectory directory_;
  TestServer server_{{.transport = GetParam()}, [this](VELConfiguration& configuration) {
                       configuration.addRoute(VELFileRoute::routeWithPath(
                           "/files", VELURL::fileURLWithPath(directory_.path())));
                     }};
};
INSTANTIATE_WIRE_TABLE(ServedFiles);

// The sizes lie around what is read into memory and around a piece of a body.
TEST_P(ServedFiles, ArriveWholeAndInTurn) {
  const bool byBytes =
      GetParam() == Transport::kMemoryByBytes || GetParam() == Transport::kMemoryTLSByBytes;
  std::vector<size_t> sizes = {0, 1, 4096, 16'385, 49'152, 49'153};
  if (!byBytes) sizes.insert(sizes.end(), {524'287, 524'288, 524'289, 3'000'000});
  std::string requests;
  for (const size_t size : sizes) {
    file(std::to_string(size) + ".bin", size);
    requests += get(std::to_string(size) + ".bin");
  }
  const auto client = server_.connect();
  client->send(requests + get("none"));
  for (const size_t size : sizes) {
    const Answer answer = client->readAnswer();
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.value("content-type"), "application/octet-stream");
    EXPECT_EQ(answer.value("content-length"), std::to_string(size));
    EXPECT_TRUE(answer.body == contentOfLength(size)) << size;
  }
  EXPECT_EQ(client->readAnswer().status, 404);
}

// A client is told of less than was announced only by the end of the connection.
TEST_P(ServedFiles, MayBecomeShorterWhileTheyAreSent) {
  for (const size_t rest : {0UL, 60'000UL, 700'000UL}) {
    SCOPED_TRACE(rest);
    const std::string content = file("shrinks", 5'000'000);
    const auto client = server_.connect();
    client->send("GET /files/shrinks HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(client->readHead().value("content-length"), "5000000");
    ASSERT_EQ(::truncate(directory_.path("shrinks").c_str(), static_cast<off_t>(rest)), 0);
    const std::string received = client->readToEnd();
    EXPECT_LE(received.size(), content.size());
    // What was on its way is part of the file still, and may have been wiped out with it.
    EXPECT_TRUE(content.starts_with(received.substr(0, rest)));
  }
  EXPECT_TRUE(TestServer::isServed(*server_.connect()));
}

// What is added after a file was opened is not sent; what takes its place is another file.
TEST_P(ServedFiles, MayGrowAndBeReplacedWhileTheyAreSent) {
  const std::string content = file("grows", 3'000'000);
  const auto client = server_.connect();
  client->send(get("grows"));
  EXPECT_EQ(client->readHead().value("content-length"), "3000000");
  std::ofstream(directory_.path("grows"), std::ios::app) << "more";
  std::filesystem::rename(directory_.path("grows"), directory_.path("former"));
  file("grows", 10);
  EXPECT_TRUE(client->readBytes(3'000'000) == content);
  EXPECT_EQ(client->exchange(get("grows")).body, contentOfLength(10));
  std::filesystem::remove(directory_.path("grows"));
  EXPECT_EQ(client->exchange(get("grows")).status, 404);
  EXPECT_EQ(client->exchange(get("former")).body.size(), 3'000'004U);
}

}  // namespace
}  // namespace vel::test
