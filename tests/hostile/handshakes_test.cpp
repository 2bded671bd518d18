// Clients that break TLS: in every flight of the handshake, after it, and by asking for another one.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "hostile/hostile_server.h"
#include "support/socket_wire.h"
#include "support/tls_end.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

/// A client of one version of TLS. What it wants to send next stands in `tls.toSend`: the
/// ClientHello, then what ends its handshake, then a request.
struct Client {
  Client(uint16_t port, int version)
      : wire("127.0.0.1", port), tls([version](SSL* ssl) {
          SSL_set_min_proto_version(ssl, version);
          SSL_set_max_proto_version(ssl, version);
        }) {
    tls.start();
  }

  void sendFlight() {
    wire.send(std::exchange(tls.toSend, {}));
    while (tls.toSend.empty()) {
      if (SSL_is_init_finished(tls.ssl.get()) == 1) return tls.write(head({"GET /text HTTP/1.1"}));
      std::string received;
      if (!wire.receive(received)) throw std::runtime_error("the handshake failed");
      tls.take(received);
    }
  }

  SocketWire wire;
  ForeignClient tls;
};

enum class Fault { kStop, kReset, kHalfClose, kGarbage };

class Handshakes : public ::testing::TestWithParam<int> {
 protected:
  static constexpr int kFlights = 3;

  /// A client that has sent `flights` flights.
  std::unique_ptr<Client> clientAfter(int flights) {
    auto client = std::make_unique<Client>(server_->port(), GetParam());
    for (int flight = 0; flight < flights; ++flight) client->sendFlight();
    return client;
  }

  HostileServer server_{Transport::kTLS};
};
INSTANTIATE_TEST_SUITE_P(, Handshakes, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& suite) {
                           return suite.param == TLS1_2_VERSION ? "TLS12" : "TLS13";
                         });

TEST_P(Handshakes, MayBreakOffAnywhere) {
  for (int flight = 0; flight < kFlights; ++flight) {
    for (const Fault fault : {Fault::kStop, Fault::kReset, Fault::kHalfClose, Fault::kGarbage}) {
      SCOPED_TRACE("flight " + std::to_string(flight) + ", fault " +
                   std::to_string(static_cast<int>(fault)));
      std::vector<std::unique_ptr<Client>> clients;
      const size_t length = clientAfter(flight)->tls.toSend.size();
      for (const size_t cut : {size_t{0}, size_t{1}, size_t{5}, length / 2, length - 1}) {
        clients.push_back(clientAfter(flight));
        Client& client = *clients.back();
        client.wire.send(client.tls.toSend.substr(0, cut));
        if (fault == Fault::kReset) client.wire.reset();
        if (fault == Fault::kHalfClose) client.wire.finishSending();
        if (fault == Fault::kGarbage) client.wire.send(std::string(20'000, '\x15'));
      }
      if (fault == Fault::kStop) {
        server_.takeTurn();
        server_.passTime(std::chrono::seconds(31));
      }
      EXPECT_TRUE(server_->waitForConnections(0));
      clients.clear();
      server_.expectNothingLeft();
    }
  }
}

// A changed byte may be of no consequence: then the request is answered.
TEST_P(Handshakes, MayBeChangedAnywhere) {
  for (int flight = 0; flight < kFlights; ++flight) {
    const size_t length = clientAfter(flight)->tls.toSend.size();
    for (size_t at = 0; at < length; at += at < 60 ? 7 : 41 * kSlowness) {
      SCOPED_TRACE("flight " + std::to_string(flight) + ", byte " + std::to_string(at));
      const auto client = clientAfter(flight);
      client->tls.toSend[std::min(at, client->tls.toSend.size() - 1)] ^= 0x55;
      client->wire.send(client->tls.toSend);
      client->wire.finishSending();
      std::string received;
      while (client->wire.receive(received)) {
      }
    }
    server_.expectNothingLeft();
  }
}

// The end that TLS has of its own is enough.
TEST_P(Handshakes, MayBeFollowedByAGoodbye) {
  const auto client = clientAfter(2);
  client->tls.toSend.clear();
  SSL_shutdown(client->tls.ssl.get());
  client->tls.take("");
  client->wire.send(client->tls.toSend);
  EXPECT_TRUE(server_->waitForConnections(0));
}

// Every time the server would have to do the work of a handshake (RFC 5246 §7.4.1.1 lets it refuse).
TEST(Renegotiation, IsRefused) {
  HostileServer server(Transport::kTLS);
  auto client = std::make_unique<Client>(server->port(), TLS1_2_VERSION);
  client->sendFlight();
  client->sendFlight();
  client->tls.toSend.clear();
  SSL* ssl = client->tls.ssl.get();
  ASSERT_EQ(SSL_renegotiate(ssl), 1);
  SSL_do_handshake(ssl);
  client->tls.take("");
  ASSERT_FALSE(client->tls.toSend.empty());
  client->wire.send(client->tls.toSend);
  std::string received;
  while (client->wire.receive(received)) {
    // Every record of the server's is an alert.
    EXPECT_EQ(received.front(), '\x15');
    received.clear();
    client->wire.finishSending();
  }
  client.reset();
  server.expectNothingLeft();
}

}  // namespace
}  // namespace vel::test
