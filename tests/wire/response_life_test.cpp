// The life of a response whose client reads late, or not at all.
#include <algorithm>
#include <atomic>
#include <string>

#include "support/count.h"
#include "support/test_server.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

constexpr uint64_t kLargestPiece = 524'288;
constexpr uint64_t kGibibyte = 1ULL << 30;

/// What the connection asked of a long response.
struct Pulled {
  std::atomic<uint64_t> bytes{0};
  std::atomic<uint64_t> largest_piece{0};
  Count closes;
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
    pulled_.bytes += length;
    pulled_.largest_piece = std::max(pulled_.largest_piece.load(), length);
    return VELData::dataWithStaticBytes(zeros).subdata(0, length);
  }
  bool isFinished() const override { return false; }
  void connectionDidClose() override { pulled_.closes.add(); }

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
                     }};
};
INSTANTIATE_WIRE_TABLE(ResponseLife);

TEST_P(ResponseLife, IsPulledNoFasterThanItsClientReads) {
  const auto client = server_.connect();
  client->send(head({"GET /long HTTP/1.1"}));
  EXPECT_EQ(client->readHead().status, 200);
  const auto other = server_.connect();
  for (int turn = 0; turn < 50; ++turn) ASSERT_TRUE(TestServer::isServed(*other));
  EXPECT_EQ(pulled_.largest_piece, kLargestPiece);
  // What the buffers of both systems take is far below this.
  EXPECT_LT(pulled_.bytes, kGibibyte / 8);

  client->wire().reset();
  EXPECT_TRUE(server_.waitForConnections(1));
  EXPECT_TRUE(pulled_.closes.reaches(1));
  EXPECT_EQ(pulled_.closes.value(), 1);
}

}  // namespace
}  // namespace vel::test
