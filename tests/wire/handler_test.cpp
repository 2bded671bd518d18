// Response handlers on the wire: late, from other threads, twice, never; clients that go away
// meanwhile; handlers that throw or block.
#include <gmock/gmock.h>

#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "support/held_answers.h"
#include "support/log_capture.h"
#include "support/test_server.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

const std::string kHeldRequest = head({"GET /held HTTP/1.1"});

class Handler : public ::testing::TestWithParam<Transport> {
 protected:
  HeldAnswers held_;
  TestServer server_{{.transport = GetParam()}, [this](VELConfiguration& configuration) {
                       configuration.addRoute(blockRoute("/held", held_.handler()));
                     }};
};
INSTANTIATE_WIRE_TABLE(Handler);

TEST_P(Handler, AnswersLaterFromAnotherThread) {
  const auto client = server_.connect();
  const auto other = server_.connect();
  client->send(kHeldRequest + kHeldRequest);
  for (const std::string text : {"first", "second"}) {
    VELResponseHandler respond = held_.take();
    EXPECT_TRUE(TestServer::isServed(*other));
    std::thread([&] { respond(textResponse(text)); }).join();
    EXPECT_EQ(client->readAnswer().body, text);
  }
  EXPECT_TRUE(TestServer::isServed(*client));
}

TEST_P(Handler, IsHeardOnlyOnce) {
  const LogCapture log;
  const auto client = server_.connect();
  client->send(kHeldRequest);
  const VELResponseHandler respond = held_.take();
  respond(textResponse("first"));
  respond(textResponse("second"));
  EXPECT_EQ(client->readAnswer().body, "first");
  respond(nullptr, VELError("CaseErrorDomain", 1));
  EXPECT_TRUE(TestServer::isServed(*client));
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST_P(Handler, MayAnswerAfterItsClientHasGone) {
  const auto client = server_.connect();
  client->send(kHeldRequest);
  const VELResponseHandler respond = held_.take();
  client->wire().reset();
  EXPECT_TRUE(server_.waitForConnections(0));
  respond(textResponse("too late"));
  EXPECT_TRUE(TestServer::isServed(*server_.connect()));
}

TEST_P(Handler, MayAnswerAfterItsServerHasGone) {
  auto held = std::make_unique<HeldAnswers>();
  auto server = std::make_unique<TestServer>(
      TestServer::Options{.transport = GetParam()}, [&held](VELConfiguration& configuration) {
        configuration.addRoute(blockRoute("/held", held->handler()));
      });
  const auto client = server->connect();
  client->send(kHeldRequest);
  const VELResponseHandler respond = held->take();
  server.reset();
  EXPECT_EQ(client->readToEnd(), "");
  respond(textResponse("too late"));
}

TEST(HalfClose, WhileARouteEvaluatesLetsTheAnswerThrough) {
  HeldAnswers held;
  TestServer server([&held](VELConfiguration& configuration) {
    configuration.addRoute(blockRoute("/held", held.handler()));
  });
  const auto client = server.connect();
  client->send(kHeldRequest);
  const VELResponseHandler respond = held.take();
  client->wire().finishSending();
  // By the time another connection is answered, the only loop has seen the end of the first one.
  EXPECT_TRUE(TestServer::isServed(*server.connect()));
  respond(textResponse("still there"));
  EXPECT_EQ(client->readAnswer().body, "still there");
  EXPECT_EQ(client->readToEnd(), "");
}

TEST(HalfClose, RightAfterARequestLetsTheAnswerThrough) {
  TestServer server([](VELConfiguration&) {});
  const auto client = server.connect();
  client->send(head({"GET /is-alive HTTP/1.1"}) + head({"GET /is-alive HTTP/1.1"}));
  client->wire().finishSending();
  EXPECT_EQ(client->readAnswer().body, "alive");
  EXPECT_EQ(client->readAnswer().body, "alive");
  EXPECT_EQ(client->readToEnd(), "");
}

/// Announces a body although it is none of the kinds that have one.
std::shared_ptr<VELResponse> responseThatRaises() {
  auto response = std::make_shared<VELResponse>();
  response->setStatus(200);
  response->setContentLength(5);
  return response;
}

TEST_P(Handler, ThatThrowsClosesItsConnectionOnly) {
  const LogCapture log;
  TestServer server({.transport = GetParam()}, [](VELConfiguration& configuration) {
    configuration.addRoute(blockRoute("/standard", [](VELRoute&, const auto&, const auto&) {
      throw std::runtime_error("a fault of the host's");
    }));
    configuration.addRoute(blockRoute("/number", [](VELRoute&, const auto&, const auto&) {
      throw 7;  // NOLINT: a host may throw anything.
    }));
    configuration.addRoute(std::make_shared<VELRoute>("/not-overridden", false));
  });
  const auto bystander = server.connect();
  for (const std::string path : {"/standard", "/number", "/not-overridden"}) {
    SCOPED_TRACE(path);
    const auto client = server.connect();
    client->send(head({"GET " + path + " HTTP/1.1"}));
    EXPECT_EQ(client->readToEnd(), "");
    EXPECT_TRUE(TestServer::isServed(*bystander));
  }
  EXPECT_TRUE(server.waitForConnections(1));
  EXPECT_THAT(log.lines(),
              ::testing::Contains(
                  "Uncaught exception raised during request processing: a fault of the host's"));
}

// The handler is called on this thread, which must not notice.
TEST_P(Handler, WhoseResponseThrowsClosesItsConnectionOnly) {
  const LogCapture log;
  const auto bystander = server_.connect();
  const auto client = server_.connect();
  client->send(kHeldRequest);
  held_.take()(responseThatRaises());
  EXPECT_EQ(client->readToEnd(), "");
  EXPECT_TRUE(TestServer::isServed(*bystander));
  EXPECT_TRUE(server_.waitForConnections(1));
}

TEST(BlockedHandlers, DoNotHoldUpOthersOfTheirLoop) {
  constexpr size_t kBlocked = 8;
  std::latch all_blocked(kBlocked);
  std::latch release(1);
  TestServer server({.loops = 1}, [&](VELConfiguration& configuration) {
    configuration.addRoute(
        blockRoute("/blocks", [&](VELRoute&, const auto&, const VELResponseHandler& respond) {
          all_blocked.count_down();
          release.wait();
          respond(textResponse("released"));
        }));
  });
  const auto old_connection = server.connect();
  EXPECT_TRUE(TestServer::isServed(*old_connection));
  std::vector<std::unique_ptr<WireClient>> clients;
  for (size_t index = 0; index < kBlocked; ++index) {
    clients.push_back(server.connect());
    clients.back()->send(head({"GET /blocks HTTP/1.1"}));
  }
  all_blocked.wait();
  for (int repetition = 0; repetition < 20; ++repetition) {
    EXPECT_TRUE(TestServer::isServed(*old_connection));
    EXPECT_TRUE(TestServer::isServed(*server.connect()));
  }
  release.count_down();
  for (const auto& client : clients) {
    EXPECT_EQ(client->readAnswer().body, "released");
    EXPECT_TRUE(TestServer::isServed(*client));
  }
}

}  // namespace
}  // namespace vel::test
