// A server's life on the wire: stopping, killing, draining, a new configuration.
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

TEST_P(ServerLife, AppliesANewConfigurationToNewConnections) {
  const auto old_connection = server_.connect();
  EXPECT_EQ(old_connection->exchange(head({"GET /text HTTP/1.1"})).body, "Hello");
  server_.server().configuration()->insertRoute(textRoute("/text", "Hello again"), 0);
  EXPECT_EQ(old_connection->exchange(head({"GET /text HTTP/1.1"})).body, "Hello");
  EXPECT_EQ(server_.connect()->exchange(head({"GET /text HTTP/1.1"})).body, "Hello again");

  const auto configuration = server_.server().configuration()->copy();
  configuration->setRoutes({textRoute("/", "new")});
  server_.server().setConfiguration(configuration);
  EXPECT_EQ(old_connection->exchange(head({"GET /text HTTP/1.1"})).body, "Hello");
  EXPECT_EQ(server_.connect()->exchange(head({"GET /text HTTP/1.1"})).body, "new");
}

}  // namespace
}  // namespace vel::test
