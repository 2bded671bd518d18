// A server's life on the wire: stopping, killing, draining, starting again, and what it tells its host
// about requests.
#include <gmock/gmock.h>

#include <future>
#include <system_error>

#include "support/held_answers.h"
#include "support/socket_wire.h"
#include "support/test_server.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

const std::string kHeldRequest = head({"GET /held HTTP/1.1"});

class ServerLife : public ::testing::TestWithParam<Transport> {
 protected:
  HeldAnswers held_;
  TestServer server_{{.transport = GetParam()}, [this](VELConfiguration& configuration) {
                       configuration.addRoute(blockRoute("/held", held_.handler()));
                       configuration.addRoute(textRoute("/text", "Hello"));
                     }};
};
INSTANTIATE_WIRE_TABLE(ServerLife);

TEST_P(ServerLife, StopsListeningAndLetsConnectionsLive) {
  const auto busy = server_.connect();
  const auto idle = server_.connect();
  busy->send(kHeldRequest);
  const VELResponseHandler respond = held_.take();
  EXPECT_TRUE(TestServer::isServed(*idle));
  server_.server().stop();
  EXPECT_THROW(SocketWire("127.0.0.1", server_.port()), std::system_error);
  respond(textResponse("answered"));
  EXPECT_EQ(busy->readAnswer().body, "answered");
  EXPECT_TRUE(TestServer::isServed(*busy));
  EXPECT_TRUE(TestServer::isServed(*idle));
  EXPECT_EQ(server_.server().numberOfConnections(), 2U);
}

TEST_P(ServerLife, StartsAgain) {
  server_.server().stop();
  ASSERT_TRUE(server_.server().start());
  EXPECT_TRUE(TestServer::isServed(*server_.connect()));
}

TEST_P(ServerLife, KillsEveryConnection) {
  const auto busy = server_.connect();
  const auto idle = server_.connect();
  const auto reading = server_.connect();
  busy->send(kHeldRequest);
  const VELResponseHandler respond = held_.take();
  reading->send("GET /text HT");
  EXPECT_TRUE(TestServer::isServed(*idle));
  server_.server().kill();
  EXPECT_EQ(server_.server().numberOfConnections(), 0U);
  for (WireClient* client : {busy.get(), idle.get(), reading.get()}) {
    EXPECT_EQ(client->readToEnd(), "");
  }
  respond(textResponse("too late"));
}

TEST_P(ServerLife, DrainsOnceTheLastAnswerIsSent) {
  const auto busy = server_.connect();
  const auto idle = server_.connect();
  busy->send(kHeldRequest);
  const VELResponseHandler respond = held_.take();
  EXPECT_TRUE(TestServer::isServed(*idle));
  std::promise<void> drained;
  std::future<void> end = drained.get_future();
  server_.server().drain(std::chrono::hours(1), [&drained] { drained.set_value(); });
  EXPECT_EQ(idle->readToEnd(), "");
  EXPECT_THROW(SocketWire("127.0.0.1", server_.port()), std::system_error);
  EXPECT_EQ(end.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  respond(textResponse("answered"));
  EXPECT_EQ(busy->readAnswer().body, "answered");
  EXPECT_EQ(busy->readToEnd(), "");
  EXPECT_TRUE(server_.waitFor(end));
  EXPECT_EQ(server_.server().numberOfConnections(), 0U);
}

TEST_P(ServerLife, DrainsNoLongerThanItsDeadline) {
  const auto busy = server_.connect();
  busy->send(kHeldRequest);
  const VELResponseHandler never_called = held_.take();
  std::promise<void> drained;
  std::future<void> end = drained.get_future();
  server_.server().drain(std::chrono::milliseconds(1), [&drained] { drained.set_value(); });
  EXPECT_EQ(busy->readToEnd(), "");
  EXPECT_TRUE(server_.waitFor(end));
}

TEST_P(ServerLife, AppliesANewConfigurationToNewConnections) {
  const auto old_connection = server_.connect();
  EXPECT_EQ(old_connection->exchange(head({"GET /text HTTP/1.1"})).body, "Hello");
  server_.server().configuration()->insertRoute(textRoute("/text", "Hello again"), 0);
  EXPECT_EQ(old_connection->exchange(head({"GET /text HTTP/1.1"})).body, "Hello");
  EXPECT_EQ(server_.connect()->exchange(head({"GET /text HTTP/1.1"})).body, "Hello again");
}

TEST_P(ServerLife, ClosesIdleConnectionsAfterTheKeepAliveInterval) {
  server_.server().configuration()->setKeepAliveInterval(0.001);
  const auto client = server_.connect();
  EXPECT_EQ(client->exchange(head({"GET /text HTTP/1.1"})).body, "Hello");
  EXPECT_EQ(client->readToEnd(), "");
  EXPECT_TRUE(server_.waitForConnections(0));
}

TEST_P(ServerLife, HasNoKeepAliveTimerForAnIntervalOfZero) {
  server_.server().configuration()->setKeepAliveInterval(0);
  const auto client = server_.connect();
  for (int request = 0; request < 3; ++request) {
    EXPECT_EQ(client->exchange(head({"GET /text HTTP/1.1"})).body, "Hello");
  }
}

TEST_P(ServerLife, AppliesTheLimitsOfItsConfiguration) {
  VELLimits limits;
  limits.headLines = 2;
  limits.headLineLength = 30;
  server_.server().configuration()->setLimits(limits);
  const auto connectAndSend = [this](const std::string& sent) {
    auto client = server_.connect();
    client->send(sent);
    return client;
  };
  EXPECT_EQ(connectAndSend(head({"GET /text HTTP/1.1", "X: y"}))->readAnswer().body, "Hello");
  EXPECT_EQ(connectAndSend(head({"GET /text HTTP/1.1", "X: y", "X: y"}))->readToEnd(), "");
  EXPECT_EQ(connectAndSend(head({"GET /text?01234567890 HTTP/1.1"}))->readToEnd(), "");

  limits.headLineTimeout = std::chrono::milliseconds(1);
  server_.server().configuration()->setLimits(limits);
  EXPECT_EQ(connectAndSend("GET /text HT")->readToEnd(), "");
  EXPECT_TRUE(server_.waitForConnections(0));
}

TEST_P(ServerLife, TellsOfFinishedRequests) {
  const auto client = server_.connect();
  size_t sent = 0;
  client->send(head({"GET /text?q HTTP/1.1"}));
  const Answer first = client->readAnswer();
  client->send(head({"POST /nowhere HTTP/1.1"}) + head({"HEAD /text HTTP/1.1"}) + "nonsense\r\n");
  EXPECT_EQ(client->readHead().status, 404);
  EXPECT_EQ(client->readHead().status, 200);
  EXPECT_EQ(client->readHead().status, 400);
  EXPECT_EQ(client->readToEnd(), "");

  for (const std::string& field : first.fields) sent += field.size() + 2;
  sent += std::string("HTTP/1.1 200 OK\r\n\r\nHello").size();
  const auto finished = server_.waitForFinishedRequests(4);
  ASSERT_EQ(finished.size(), 4U);
  EXPECT_EQ(finished[0].method, "GET");
  EXPECT_EQ(finished[0].target, "/text?q");
  EXPECT_EQ(finished[0].status, 200U);
  EXPECT_EQ(finished[0].bodyBytesSent, 5U);
  EXPECT_EQ(finished[0].bytesSent, sent);
  EXPECT_EQ(finished[1].method, "POST");
  EXPECT_EQ(finished[1].status, 404U);
  EXPECT_EQ(finished[2].method, "HEAD");
  EXPECT_EQ(finished[2].bodyBytesSent, 0U);
  EXPECT_EQ(finished[3].status, 400U);
  EXPECT_FALSE(finished[3].hasRequest);
}

}  // namespace
}  // namespace vel::test
