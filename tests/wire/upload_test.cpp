// Large bodies: where they are kept, with which rights, and for how long.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "support/temporary_directory.h"
#include "support/test_server.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

constexpr size_t kInMemory = 5'242'880;

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

/// The file in which the body of `request` is, or nothing; either way it must be `expected`.
std::string fileOf(const VELRequest& request, const std::string& expected) {
  EXPECT_EQ(request.contentLength(), expected.size());
  const auto body = request.body();
  EXPECT_TRUE(body && body->view() == expected);
  EXPECT_NE(request.bodyData().has_value(), request.bodyFileURL().has_value());
  if (!request.bodyFileURL()) return {};
  const std::string file = request.bodyFileURL()->filePath();
  EXPECT_EQ(std::filesystem::file_size(file), expected.size());
  EXPECT_EQ(std::filesystem::path(file).filename(), request.identifier().UUIDString());
  EXPECT_EQ(modeOf(file), 0600U);
  EXPECT_EQ(modeOf(std::filesystem::path(file).parent_path()), 0700U);
  return file;
}

class Upload : public ::testing::TestWithParam<Transport> {
 protected:
  Upload() { ::setenv("TMPDIR", directory_.path().c_str(), 1); }
  ~Upload() override { ::unsetenv("TMPDIR"); }

  /// Sends a head with `field` and then `sent`, and gives the file in which the route saw `body`.
  std::string upload(WireClient& client, const std::string& field, const std::string& sent,
                     const std::string& body) {
    {
      const std::lock_guard guard(mutex_);
      expected_ = body;
    }
    client.send(head({"POST /upload HTTP/1.1", field}) + sent);
    return client.readAnswer().body;
  }

  static std::string lengthField(size_t length) {
    return "Content-Length: " + std::to_string(length);
  }

  TemporaryDirectory directory_;
  std::mutex mutex_;
  // Guarded by mutex_.
  std::string expected_;
  TestServer server_{{.transport = GetParam()}, [this](VELConfiguration& configuration) {
                       auto route = blockRoute(
                           "/upload", [this](VELRoute&, const auto& request, const auto& respond) {
                             const std::lock_guard guard(mutex_);
                             respond(textResponse(fileOf(*request, expected_)));
                           });
                       route->setAllowedHTTPMethods({"POST"});
                       configuration.addRoute(route);
                     }};
};
INSTANTIATE_WIRE_TABLE(Upload);

TEST_P(Upload, StaysInMemoryUpToTheLimitAndIsInAFileAboveIt) {
  const auto client = server_.connect();
  std::string body(kInMemory, 'b');
  EXPECT_EQ(upload(*client, lengthField(body.size()), body, body), "");
  body += 'e';
  const std::string file = upload(*client, lengthField(body.size()), body, body);
  EXPECT_TRUE(file.starts_with(directory_.path("org.corvane/Uploads/"))) << file;

  // The next request is read only after the file of this one was deleted.
  EXPECT_TRUE(TestServer::isServed(*client));
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_P(Upload, GoesToAFileInChunksToo) {
  std::string body;
  std::string chunks;
  for (char letter = 'a'; body.size() <= kInMemory; ++letter) {
    const std::string data(1 << 20, letter);
    body += data;
    chunks += "100000\r\n" + data + "\r\n";
  }
  const auto client = server_.connect();
  EXPECT_NE(upload(*client, "Transfer-Encoding: chunked", chunks + "0\r\n\r\n", body), "");
}

TEST_P(Upload, LeavesTheLastFileOfAConnection) {
  const std::string body(kInMemory + 1, 'b');
  const auto client = server_.connect();
  const std::string fields = lengthField(body.size()) + "\r\nConnection: close";
  const std::string file = upload(*client, fields, body, body);
  EXPECT_EQ(client->readToEnd(), "");
  EXPECT_TRUE(server_.waitForConnections(0));
  EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_P(Upload, IsAbandonedWithItsConnection) {
  const auto client = server_.connect();
  client->send(head({"POST /upload HTTP/1.1", lengthField(kInMemory * 2)}) +
               std::string(kInMemory + 1, 'b'));
  client->wire().reset();
  EXPECT_TRUE(server_.waitForConnections(0));
  EXPECT_TRUE(TestServer::isServed(*server_.connect()));
}

}  // namespace
}  // namespace vel::test
