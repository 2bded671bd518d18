// TLS on the wire: what is negotiated, and clients that fail at it.
#include <gmock/gmock.h>
#include <openssl/ssl.h>

#include <memory>

#include "support/socket_wire.h"
#include "support/test_server.h"
#include "support/tls_wire.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

class TLS : public ::testing::Test {
 protected:
  std::unique_ptr<TLSWire> connect(const TLSOffer& offer) {
    return std::make_unique<TLSWire>(std::make_unique<SocketWire>("127.0.0.1", server_.port()),
                                     offer);
  }

  TestServer server_{{.transport = Transport::kTLS}, [](VELConfiguration& configuration) {
                       configuration.addRoute(blockRoute(
                           "/secure", [](VELRoute&, const auto& request, const auto& respond) {
                             const auto connection = request->connection();
                             respond(textResponse(std::string(request->isSecure() ? "1" : "0") +
                                                  (connection->isSecure() ? "1" : "0")));
                           }));
                     }};
};

TEST_F(TLS, SpeaksItsTwoLatestVersions) {
  for (const auto& [version, name] :
       {std::pair(TLS1_2_VERSION, "TLSv1.2"), std::pair(TLS1_3_VERSION, "TLSv1.3")}) {
    auto wire = connect({version, version, {"http/1.1"}, false});
    EXPECT_EQ(wire->version(), name);
    EXPECT_EQ(wire->protocol(), "http/1.1");
    WireClient client(std::move(wire));
    EXPECT_TRUE(TestServer::isServed(client));
  }
}

TEST_F(TLS, IsToldByTheConnectionOnly) {
  EXPECT_EQ(server_.connect()->exchange(head({"GET /secure HTTP/1.1"})).body, "01");
}

TEST_F(TLS, FailsForOneConnectionAtATime) {
  TLSOffer old;
  old.highest = TLS1_1_VERSION;
  TLSOffer careful;
  careful.checksCertificate = true;
  const auto bystander = server_.connect();
  EXPECT_THROW(connect(old), std::runtime_error);
  EXPECT_TRUE(TestServer::isServed(*bystander));

  // A client that does not trust the certificate tells so and goes away.
  EXPECT_THROW(connect(careful), std::runtime_error);
  EXPECT_TRUE(TestServer::isServed(*bystander));

  const auto plain = server_.connectPlain();
  plain->send(head({"GET /is-alive HTTP/1.1"}));
  EXPECT_THAT(plain->readToEnd(), ::testing::Not(::testing::HasSubstr("HTTP/")));
  EXPECT_TRUE(TestServer::isServed(*bystander));
}

TEST_F(TLS, OutlivesABadRecordBehindAGoodRequest) {
  const auto bystander = server_.connect();
  const std::string records[] = {
      std::string("\x17\x03\x03\x00\x40", 5) + std::string(64, 'x'),
      std::string("\x15\x03\x03\x00\x02\x02\x28", 7),
      "GET / HTTP/1.1\r\n\r\n",
  };
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    for (const std::string& record : records) {
      auto wire = connect({version, version, {}, false});
      wire->sendBefore(head({"GET /is-alive HTTP/1.1"}), record);
      std::string received;
      while (wire->receive(received)) {
      }
      EXPECT_TRUE(TestServer::isServed(*bystander));
    }
  }
  EXPECT_TRUE(server_.waitForConnections(1));
}

TEST(PlainServer, TakesAHandshakeForABadRequest) {
  TestServer server([](VELConfiguration&) {});
  const auto bystander = server.connect();
  const auto client = server.connectPlain();
  // The beginning of a ClientHello, and what ends a line.
  client->send(std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n", 13));
  EXPECT_EQ(client->readAnswer().status, 400);
  EXPECT_EQ(client->readToEnd(), "");
  EXPECT_TRUE(TestServer::isServed(*bystander));
}

}  // namespace
}  // namespace vel::test
