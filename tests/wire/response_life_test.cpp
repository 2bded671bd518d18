// The life of a response whose client reads late, or not at all.
#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>

#include "support/test_server.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

constexpr uint64_t kLargestPiece = 524'288;
constexpr uint64_t kGibibyte = 1ULL << 30;

/// What the connection asked of an endless response.
struct Pulled {
  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex.
  uint64_t bytes = 0;
  uint64_t largestPiece = 0;
  int closes = 0;
};

/// A body of a gibibyte that takes no memory.
class LongResponse : public VELResponse {
 public:
  explicit LongResponse(Pulled& pulled) : pulled_(pulled) {
    setStatus(200);
    setContentLength(kGibibyte);
  }

  VELData readDataOfLength(uint64_t length) override {
    static const std::string zeros(kLargestPiece, '0');
    const std::lock_guard guard(pulled_.mutex);
    pulled_.bytes += length;
    pulled_.largestPiece = std::max(pulled_.largestPiece, length);
    return VELData::dataWithStaticBytes(zeros).subdata(0, length);
  }
  bool isFinished() const override { return false; }
  void connectionDidClose() override {
    const std::lock_guard guard(pulled_.mutex);
    ++pulled_.closes;
    pulled_.changed.notify_all();
  }

 private:
  Pulled& pulled_;
};

class ResponseLife : public ::testing::TestWithParam<Transport> {
 protected:
  Pulled pulled_;
  TestServer server_{{.transport = GetParam()}, [this](VELConfiguration& configuration) {
                       configuration.addRoute(
                           blockRoute("/long", [this](VELRoute&, const auto&, const auto& respond) {
                             respond(std::make_shared<LongResponse>(pulled_));
                           }));
                       configuration.addRoute(textRoute("/large", std::string(1'000'000, 'l')));
                     }};
};
INSTANTIATE_WIRE_TABLE(ResponseLife);

TEST_P(ResponseLife, IsPulledNoFasterThanItsClientReads) {
  const auto client = server_.connect();
  client->send(head({"GET /long HTTP/1.1"}));
  EXPECT_EQ(client->readHead().status, 200);
  const auto other = server_.connect();
  for (int turn = 0; turn < 50; ++turn) ASSERT_TRUE(TestServer::isServed(*other));
  {
    const std::lock_guard guard(pulled_.mutex);
    EXPECT_EQ(pulled_.largestPiece, kLargestPiece);
    // What the buffers of both systems take is far below this.
    EXPECT_LT(pulled_.bytes, kGibibyte / 8);
  }

  client->wire().reset();
  EXPECT_TRUE(server_.waitForConnections(1));
  std::unique_lock lock(pulled_.mutex);
  EXPECT_TRUE(pulled_.changed.wait_for(lock, kPatience, [this] { return pulled_.closes > 0; }));
  EXPECT_EQ(pulled_.closes, 1);
}

TEST_P(ResponseLife, WaitsForAClientThatReadsLate) {
  constexpr int kRequests = 20;
  const auto client = server_.connect();
  for (int request = 0; request < kRequests; ++request) {
    client->send(head({"GET /large HTTP/1.1"}));
  }
  EXPECT_TRUE(TestServer::isServed(*server_.connect()));
  for (int request = 0; request < kRequests; ++request) {
    EXPECT_EQ(client->readAnswer().body.size(), 1'000'000U);
  }
  EXPECT_TRUE(TestServer::isServed(*client));
}

}  // namespace
}  // namespace vel::test
