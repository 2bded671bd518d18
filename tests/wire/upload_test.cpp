// Large bodies: where they are kept, with which rights, and for how long.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>

#include "support/temporary_directory.h"
#include "support/test_server.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

constexpr size_t kInMemory = 5'242'880;

/// What a route saw of one body.
struct SeenBody {
  uint64_t contentLength = 0;
  std::optional<size_t> inMemory;
  std::optional<std::string> file;
  uintmax_t fileSize = 0;
  mode_t fileMode = 0;
  mode_t directoryMode = 0;
  bool isComplete = false;
};

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

SeenBody look(const VELRequest& request, const std::string& expected) {
  SeenBody seen;
  seen.contentLength = request.contentLength();
  if (const auto data = request.bodyData()) seen.inMemory = data->length();
  if (const auto file = request.bodyFileURL()) {
    seen.file = file->filePath();
    seen.fileSize = std::filesystem::file_size(*seen.file);
    seen.fileMode = modeOf(*seen.file);
    seen.directoryMode = modeOf(std::filesystem::path(*seen.file).parent_path());
    EXPECT_EQ(std::filesystem::path(*seen.file).filename(), request.identifier().UUIDString());
  }
  const auto body = request.body();
  seen.isComplete = body && body->view() == expected;
  return seen;
}

class Upload : public ::testing::TestWithParam<Transport> {
 protected:
  Upload() { ::setenv("TMPDIR", directory_.path().c_str(), 1); }
  ~Upload() override { ::unsetenv("TMPDIR"); }

  /// Sends `head` and `sent`, and gives what the route saw, which should be `body`.
  SeenBody upload(WireClient& client, const std::string& head_field, const std::string& sent,
                  const std::string& body) {
    {
      const std::lock_guard guard(mutex_);
      expected_ = &body;
    }
    client.send(head({"POST /upload HTTP/1.1", head_field}) + sent);
    EXPECT_EQ(client.readAnswer().body, "seen");
    const std::lock_guard guard(mutex_);
    return seen_;
  }

  static std::string lengthField(size_t length) {
    return "Content-Length: " + std::to_string(length);
  }

  TemporaryDirectory directory_;
  std::mutex mutex_;
  // Guarded by mutex_.
  const std::string* expected_ = nullptr;
  SeenBody seen_;
  TestServer server_{{.transport = GetParam()}, [this](VELConfiguration& configuration) {
                       auto route = blockRoute(
                           "/upload", [this](VELRoute&, const auto& request, const auto& respond) {
                             const std::lock_guard guard(mutex_);
                             seen_ = look(*request, *expected_);
                             respond(textResponse("seen"));
                           });
                       route->setAllowedHTTPMethods({"POST"});
                       configuration.addRoute(route);
                     }};
};
INSTANTIATE_WIRE_TABLE(Upload);

TEST_P(Upload, StaysInMemoryUpToTheLimit) {
  const std::string body(kInMemory, 'b');
  const auto client = server_.connect();
  const SeenBody seen = upload(*client, lengthField(kInMemory), body, body);
  EXPECT_EQ(seen.inMemory, kInMemory);
  EXPECT_EQ(seen.file, std::nullopt);
  EXPECT_TRUE(seen.isComplete);
}

TEST_P(Upload, GoesToAFileAboveTheLimit) {
  const size_t length = kInMemory + 1;
  std::string body(length, 'b');
  body.back() = 'e';
  const auto client = server_.connect();
  const SeenBody seen = upload(*client, lengthField(length), body, body);
  EXPECT_EQ(seen.contentLength, length);
  EXPECT_EQ(seen.inMemory, std::nullopt);
  ASSERT_NE(seen.file, std::nullopt);
  EXPECT_TRUE(seen.file->starts_with(directory_.path("org.corvane/Uploads/"))) << *seen.file;
  EXPECT_EQ(seen.fileSize, length);
  EXPECT_EQ(seen.fileMode, 0600U);
  EXPECT_EQ(seen.directoryMode, 0700U);
  EXPECT_TRUE(seen.isComplete);

  // The next request is read only after the file of this one was deleted.
  EXPECT_TRUE(TestServer::isServed(*client));
  EXPECT_FALSE(std::filesystem::exists(*seen.file));
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
  const SeenBody seen = upload(*client, "Transfer-Encoding: chunked", chunks + "0\r\n\r\n", body);
  EXPECT_EQ(seen.contentLength, body.size());
  EXPECT_EQ(seen.fileSize, body.size());
  EXPECT_TRUE(seen.isComplete);
}

TEST_P(Upload, LeavesTheLastFileOfAConnection) {
  const std::string body(kInMemory + 1, 'b');
  auto client = server_.connect();
  const std::string close = lengthField(body.size()) + "\r\nConnection: close";
  const SeenBody seen = upload(*client, close, body, body);
  EXPECT_EQ(client->readToEnd(), "");
  EXPECT_TRUE(server_.waitForConnections(0));
  ASSERT_NE(seen.file, std::nullopt);
  EXPECT_TRUE(std::filesystem::exists(*seen.file));
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
