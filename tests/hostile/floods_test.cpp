// Clients that send or ask for too much: lines without end, noise, ever more requests without reading
// an answer, ever more connections.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "hostile/hostile_server.h"
#include "support/log_capture.h"
#include "support/socket_peer.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

using std::chrono::seconds;

class Floods : public ::testing::TestWithParam<Transport> {
 protected:
  HostileServer server_{GetParam()};
};
INSTANTIATE_WIRE_TABLE(Floods);

TEST_P(Floods, EndAtTheLimitOfALine) {
  constexpr size_t kPiece = 100'000;
  const std::string chunked = head({"POST /upload HTTP/1.1", "Transfer-Encoding: chunked"});
  const struct {
    const char* name;
    std::string before;
    std::string unit;
  } floods[] = {
      {"a request line", "", "a"},
      {"a field", "GET /text HTTP/1.1\r\nA: ", "a"},
      {"ends of lines by halves", "GET /text HTTP/1.1\r\nA: ", "\r"},
      {"fields", "GET /text HTTP/1.1\r\n", "A: b\r\n"},
      {"a chunk size", chunked, "1"},
      {"a chunk extension", chunked + "1;", "a"},
      {"a trailer", chunked + "0\r\n", "a"},
      {"lines of a trailer", chunked + "0\r\n", "A: b\r\n"},
  };
  for (const auto& flood : floods) {
    SCOPED_TRACE(flood.name);
    std::string piece;
    while (piece.size() < kPiece) piece += flood.unit;
    auto client = server_->connect();
    // The answer to an earlier request is not lost.
    client->send(head({"GET /text HTTP/1.1"}) + flood.before + piece);
    EXPECT_EQ(client->readAnswer().body, "Hello");
    // However much more comes, the connection is over.
    for (int pieces = 0; pieces < 100 && client->send(piece); ++pieces) {
    }
    EXPECT_EQ(client->readToEnd(), "");
    EXPECT_TRUE(server_->waitForConnections(0));
    client.reset();
    server_.expectNothingLeft();
  }
}

// Whatever it is taken for, nobody else notices, and it ends with the client.
TEST_P(Floods, OfNoiseAreAnsweredOrRefused) {
  const LogCapture log;
  const std::string alphabet = "GET POST /text/upload HTTP/1.1\r\n\r\n:;0aA%?&=\t\xff\x80";
  for (unsigned seed = 0; seed < 300 / kSlowness; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::string noise(random() % 3000, '\0');
    const bool is_binary = seed % 2 == 0;
    for (char& byte : noise) {
      byte = is_binary ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
    }
    if (seed % 3 == 0)
      noise = head({"POST /upload HTTP/1.1", "Transfer-Encoding: chunked"}) + noise;
    const auto client = server_->connect();
    client->send(noise);
    client->wire().finishSending();
    const std::string answers = client->readToEnd();
    EXPECT_TRUE(answers.empty() || answers.starts_with("HTTP/1.1 ")) << answers;
  }
  server_.expectNothingLeft();
}

/// Counts what a route is asked.
struct Asked {
  VELBlockRoute::Handler handler() {
    return [this](VELRoute&, const auto&, const auto& respond) {
      ++count;
      // No body: that would have no time-out.
      respond(textResponse(""));
    };
  }
  std::atomic<size_t> count{0};
};

// What cannot be sent is not read either: requests stay in the systems' buffers.
TEST(PipelinedFlood, IsReadNoFasterThanItsAnswers) {
  constexpr size_t kMost = 1'000'000;
  constexpr size_t kAtOnce = 1000;
  Asked asked;
  HostileServer server(Transport::kTCP);
  server->server().configuration()->addRoute(blockRoute("/asked", asked.handler()));
  const std::string request = head({"GET /asked HTTP/1.1", "Padding: " + std::string(100, 'p')});
  std::string requests;
  for (size_t index = 0; index < kAtOnce; ++index) requests += request;

  SocketPeer peer = SocketPeer::slowReaderAt(server->port(), 4096);
  size_t sent = 0;
  const auto sendMore = [&] {
    const size_t before = sent;
    while (sent < kMost * request.size()) {
      const size_t now = peer.sendSome(std::string_view(requests).substr(sent % requests.size()));
      if (now == 0) break;
      sent += now;
    }
    return sent - before;
  };
  const auto standsStill = [&] {
    const size_t answered = asked.count;
    return sendMore() == 0 && answered > 0 && answered == asked.count;
  };
  ASSERT_TRUE(server.takeTurnsUntil(standsStill));
  const size_t answered = asked.count;
  EXPECT_LT(sent, kMost * request.size() / 2);
  EXPECT_LT(answered, kMost / 10);
  // It goes on where it stopped as soon as answers are read.
  while (asked.count < answered + kAtOnce) {
    ASSERT_FALSE(peer.receive(100'000).empty());
    sendMore();
  }
  // The time of an answer that nobody takes runs out.
  EXPECT_TRUE(server.takeTurnsUntil([&] {
    server.passTime(seconds(31));
    return server->server().numberOfConnections() == 0;
  }));
  peer.close();
  server.expectNothingLeft();
}

/// Raises the limit of descriptors, and gives how many more this process may have.
size_t roomForDescriptors(size_t wanted) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  rlimit higher = limit;
  higher.rlim_cur = std::max<rlim_t>(limit.rlim_cur, wanted + 500);
  higher.rlim_max = std::max(limit.rlim_max, higher.rlim_cur);
  if (setrlimit(RLIMIT_NOFILE, &higher) != 0) {
    higher = limit;
    higher.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &higher);
  }
  getrlimit(RLIMIT_NOFILE, &limit);
  return std::min<size_t>(wanted, limit.rlim_cur - 500);
}

// Ten thousand where the limit of descriptors allows it: both ends are in this process.
TEST(IdleCrowd, DisturbsNobodyAndGoesWhenItsTimeIsUp) {
  const size_t count = roomForDescriptors(20'000 / kSlowness) / 2;
  RecordProperty("connections", std::to_string(count));
  HostileServer server(Transport::kTCP, 2);
  std::vector<SocketPeer> crowd;
  for (size_t index = 0; index < count; ++index) {
    crowd.push_back(SocketPeer::connectedTo(server->port()));
    if (index % 3 == 0) crowd.back().send(head({"GET /text HTTP/1.1"}));
    if (index % 3 == 1) crowd.back().send("GET /te");
  }
  ASSERT_TRUE(server->waitForConnections(count));
  for (size_t index = 0; index < count; index += 3) {
    ASSERT_TRUE(crowd[index].receive(15).starts_with("HTTP/1.1 200 OK"));
  }
  server.takeTurn();
  EXPECT_TRUE(server.takeTurnsUntil([&] {
    server.passTime(seconds(31));
    return server->server().numberOfConnections() == 0;
  }));
  crowd.clear();
  server.expectNothingLeft();
}

}  // namespace
}  // namespace vel::test
