// A crowd of hostile clients in several threads, handlers that answer from elsewhere, twice, never or
// too late, and configurations under edit, while their server is stopped, killed, drained or
// destroyed.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "hostile/hostile_server.h"
#include "support/count.h"
#include "support/log_capture.h"
#include "support/socket_wire.h"
#include "support/tls_wire.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

/// How the server ends in the middle of it all. `kNone`: not before the crowd.
enum class Ending { kNone, kStop, kKill, kDrain, kDestruction };

constexpr const char* kEndings[] = {"Nothing", "Stop", "Kill", "Drain", "Destruction"};

/// Answers on other threads: soon, twice, never, or much too late.
class Answerer {
 public:
  VELBlockRoute::Handler handler() {
    return [this](VELRoute&, const auto&, const VELResponseHandler& respond) {
      switch (count_++ % 4) {
        case 0:
          return queue_->async([respond] { respond(textResponse("late")); });
        case 1:
          respond(textResponse("first"));
          return queue_->async([respond] { respond(nullptr, VELError("CaseErrorDomain", 1)); });
        case 2:
          return;
        default:
          // When the client has gone, or the server.
          queue_->after(std::chrono::milliseconds(20),
                        [respond] { respond(textResponse("much too late")); });
      }
    };
  }

 private:
  std::atomic<unsigned> count_{0};
  const std::shared_ptr<VELEventLoops> loops_ = std::make_shared<VELEventLoops>(1);
  const std::shared_ptr<VELSerialQueue> queue_ =
      std::make_shared<VELSerialQueue>("answers", loops_);
};

/// What a client says, part of a message or more than one.
const std::vector<std::string>& sayings() {
  static const std::vector<std::string> list = {
      "",
      "GET /te",
      "nonsense\r\n",
      std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n", 13),
      head({"GET /text HTTP/1.1"}),
      head({"GET /text HTTP/1.1", "Connection: close"}) + head({"GET /text HTTP/1.1"}),
      head({"GET /large HTTP/1.1"}),
      head({"GET /chunks HTTP/1.1"}),
      head({"GET /answers HTTP/1.1"}),
      head({"GET /answers HTTP/1.1"}) + head({"GET /answers HTTP/1.1"}),
      head({"POST /upload HTTP/1.1", "Content-Length: 600000"}) + std::string(300'000, 'b'),
      head({"POST /upload HTTP/1.1", "Transfer-Encoding: chunked"}) + "3\r\nabc\r\n0\r\nA: b\r\n",
      head({"POST /nowhere HTTP/1.1", "Connection: close", "Content-Length: 9"}) + "12345",
  };
  return list;
}

class Crowd : public ::testing::TestWithParam<std::tuple<Transport, Ending>> {
 protected:
  static constexpr int kThreads = 4;
  static constexpr int kClientsOfThread = 250 / kSlowness;

  static Transport transport() { return std::get<0>(GetParam()); }
  static Ending ending() { return std::get<1>(GetParam()); }

  Crowd() {
    home_->server().configuration()->addRoute(blockRoute("/answers", answerer_.handler()));
    configuration_ = home_->server().configuration()->copy();
    server_ = std::make_shared<VELServer>(configuration_, home_->server().loops());
    server_->setInterface("127.0.0.1");
    server_->start();
    port_ = server_->listeningPort();
    observation_ = server_->observe("connections", [this](const VELChange& change) {
      const bool comes = change.kind == VELChange::Kind::kInsertion;
      if (change.isPrior != comes) unclosed_ += comes ? 1 : -1;
    });
  }

  /// One client comes, says something, perhaps listens, and goes.
  void visit(std::mt19937& random) {
    std::unique_ptr<Wire> wire = std::make_unique<SocketWire>("127.0.0.1", port_);
    // Some speak plainly where TLS is spoken.
    if (transport() == Transport::kTLS && random() % 8 != 0) {
      wire = std::make_unique<TLSWire>(std::move(wire));
    }
    wire->send(sayings()[random() % sayings().size()]);
    std::string received;
    switch (random() % 5) {
      case 0:
        return wire->reset();
      case 1:
        wire->finishSending();
        while (wire->receive(received)) received.clear();
        return;
      case 2:
        return wire->finishSending();
      default:
        return;
    }
  }

  void comeAndGo(unsigned seed) {
    std::mt19937 random(seed);
    for (int index = 0; index < kClientsOfThread; ++index) {
      try {
        visit(random);
      } catch (const std::exception& error) {
        // Nobody listens any more, or a handshake was refused; but nothing may stand still.
        EXPECT_EQ(std::string(error.what()).find("stood still"), std::string::npos);
      }
      visits_.add();
    }
  }

  void editUntilTheCrowdHasGone(int seed) {
    const auto route = textRoute("/edited", std::to_string(seed));
    for (int index = 0; !crowd_has_gone_; ++index) {
      configuration_->insertRoute(route, 0);
      configuration_->setKeepAliveInterval(index % 20);
      configuration_->setValueForVariable(index, "index");
      EXPECT_FALSE(configuration_->copy()->routes().empty());
      configuration_->removeRoute(route);
    }
  }

  void endServer() {
    switch (ending()) {
      case Ending::kNone:
        break;
      case Ending::kStop:
        server_->stop();
        break;
      case Ending::kKill:
        server_->kill();
        EXPECT_EQ(server_->numberOfConnections(), 0U);
        break;
      case Ending::kDrain:
        server_->drain(std::chrono::milliseconds(5), [this] {
          unclosed_when_drained_ = unclosed_.load();
          drains_.add();
        });
        break;
      case Ending::kDestruction:
        server_.reset();
        break;
    }
  }

  void expectServerEnded() {
    if (!server_) return;
    if (ending() == Ending::kDrain) {
      EXPECT_TRUE(drains_.reaches(1));
      EXPECT_EQ(unclosed_when_drained_, 0);
    }
    EXPECT_TRUE(home_.takeTurnsUntil([this] { return unclosed_ == 0; }));
    EXPECT_EQ(server_->numberOfConnections(), 0U);
    EXPECT_TRUE(server_->start());
    server_->kill();
    observation_ = VELObservation();
    server_.reset();
  }

  const LogCapture log_;
  Answerer answerer_;
  // Shares its loops with the server that ends.
  HostileServer home_{transport(), 2};
  std::shared_ptr<VELConfiguration> configuration_;
  std::shared_ptr<VELServer> server_;
  uint16_t port_ = 0;
  VELObservation observation_;
  std::atomic<int> unclosed_{0};
  std::atomic<int> unclosed_when_drained_{-1};
  Count drains_;
  Count visits_;
  std::atomic<bool> crowd_has_gone_{false};
};
INSTANTIATE_TEST_SUITE_P(, Crowd,
                         ::testing::Combine(::testing::Values(Transport::kTCP, Transport::kTLS),
                                            ::testing::Values(Ending::kNone, Ending::kStop,
                                                              Ending::kKill, Ending::kDrain,
                                                              Ending::kDestruction)),
                         [](const auto& suite) {
                           return transportName(std::get<0>(suite.param)) +
                                  kEndings[static_cast<int>(std::get<1>(suite.param))];
                         });

TEST_P(Crowd, LeavesNothingBehind) {
  std::vector<std::thread> crowd;
  std::vector<std::thread> editors;
  for (int thread = 0; thread < kThreads; ++thread) {
    crowd.emplace_back([this, thread] { comeAndGo(static_cast<unsigned>(thread)); });
    editors.emplace_back([this, thread] { editUntilTheCrowdHasGone(thread); });
  }
  EXPECT_TRUE(visits_.reaches(kThreads * kClientsOfThread / 2));
  endServer();
  for (std::thread& thread : crowd) thread.join();
  crowd_has_gone_ = true;
  for (std::thread& thread : editors) thread.join();
  expectServerEnded();
  home_.expectNothingLeft();
}

// A killed connection sends what was written before; a drain that has had enough does not.
TEST(Drain, WaitsForNobodyWhoReadsNothing) {
  for (const bool kills_first : {false, true}) {
    HostileServer server(Transport::kTCP);
    EXPECT_TRUE(server->waitForConnections(0));
    std::atomic<int> unclosed{0};
    const VELObservation observation =
        server->server().observe("connections", [&](const VELChange& change) {
          const bool comes = change.kind == VELChange::Kind::kInsertion;
          if (change.isPrior != comes) unclosed += comes ? 1 : -1;
        });
    auto client = server->connect();
    client->send(head({"GET /large HTTP/1.1"}));
    server.takeTurn();
    if (kills_first) server->server().kill();
    Count drains;
    server->server().drain(std::chrono::milliseconds(1), [&] {
      EXPECT_EQ(unclosed, 0);
      drains.add();
    });
    EXPECT_TRUE(drains.reaches(1));
    EXPECT_LT(client->readToEnd().size(), HostileServer::kLarge);
    client.reset();
    ASSERT_TRUE(server->server().start());
    server.expectNothingLeft();
  }
}

}  // namespace
}  // namespace vel::test
