// TLS sessions of this library with each other: handshakes, data, ends, failures and checks of the peer.
#include "platform/tls_session.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <utility>

#include "corvane/socket.h"
#include "support/test_certificate.h"
#include "support/tls_end.h"

namespace vel::test {
namespace {

using Status = TlsSession::Status;

constexpr size_t kMebibyte = size_t{1} << 20;

VELCertificateList identityList(const TestIdentity& identity) {
  return VELIdentity::certificateListWithPEM(identity.certificates, identity.privateKey);
}

VELTLSSettings serverSettings(const TestIdentity& identity) {
  VELTLSSettings settings;
  settings.isServer = true;
  settings.certificates = identityList(identity);
  return settings;
}

VELTLSSettings clientSettings(const TestIdentity& identity, const std::string& name) {
  VELTLSSettings settings;
  settings.peerName = name;
  settings.trustedRoots = VELCertificate::certificatesWithPEM(identity.root);
  return settings;
}

const TestIdentity& localIdentity() {
  static const TestIdentity identity =
      makeSelfSignedIdentity(KeyKind::kEC, {"localhost", "127.0.0.1", "*.wild.test"});
  return identity;
}

/// Bytes without a period that a record could hide.
std::string numberedBytes(size_t length) {
  std::string bytes;
  while (bytes.size() < length) {
    bytes += std::to_string(bytes.size()) + '\n';
  }
  bytes.resize(length);
  return bytes;
}

/// Two ends that have shaken hands; halfway the last message to the server is still to come.
struct Pair {
  explicit Pair(size_t capacity = 4096, bool is_halfway = false)
      : client(clientSettings(localIdentity(), "localhost"), capacity),
        server(serverSettings(localIdentity()), capacity) {
    client.start();
    if (is_halfway) {
      server.take(std::exchange(client.toSend, {}));
      client.take(std::exchange(server.toSend, {}));
    } else {
      exchange(client, server);
    }
  }
  TlsEnd client;
  TlsEnd server;
};

TEST(TlsSession, CarriesDataHoweverTheBytesArrive) {
  const TestIdentity identities[] = {makeSelfSignedIdentity(KeyKind::kEC, {"localhost"}),
                                     makeSelfSignedIdentity(KeyKind::kRSA, {"localhost"}),
                                     makeChainedIdentity({"localhost"})};
  const std::string request = numberedBytes(300);
  const std::string answer = numberedBytes(20000);
  for (const TestIdentity& identity : identities) {
    for (const size_t step : {std::string::npos, size_t{1}, size_t{7}, size_t{1448}}) {
      TlsEnd client(clientSettings(identity, "localhost"));
      TlsEnd server(serverSettings(identity));
      EXPECT_FALSE(client.session->isHandshakeDone());
      client.start();
      exchange(client, server, step);
      ASSERT_TRUE(client.session->isHandshakeDone()) << client.session->error().description();
      ASSERT_TRUE(server.session->isHandshakeDone()) << server.session->error().description();
      client.write(request);
      exchange(client, server, step);
      EXPECT_EQ(server.received, request);
      server.write(answer);
      exchange(client, server, step);
      EXPECT_EQ(client.received, answer);
    }
  }
}

TEST(TlsSession, TakesDataThatComesWithTheEndOfTheHandshake) {
  for (const size_t step : {std::string::npos, size_t{1}}) {
    Pair pair(4096, true);
    ASSERT_TRUE(pair.client.session->isHandshakeDone());
    ASSERT_FALSE(pair.server.session->isHandshakeDone());
    pair.client.write("first");
    exchange(pair.client, pair.server, step);
    EXPECT_EQ(pair.server.received, "first");
  }
}

TEST(TlsSession, CarriesAMebibyteBothWays) {
  const std::string data = numberedBytes(kMebibyte);
  for (const size_t capacity : {size_t{1000}, size_t{16384}, 2 * kMebibyte}) {
    Pair pair(capacity);
    for (const size_t step : {std::string::npos, size_t{10007}}) {
      pair.client.write(data);
      pair.server.write(data);
      EXPECT_LT(pair.server.toSend.size(), data.size() + 65 * 32);
      exchange(pair.client, pair.server, step);
      EXPECT_TRUE(std::exchange(pair.server.received, {}) == data);
      EXPECT_TRUE(std::exchange(pair.client.received, {}) == data);
    }
  }
}

TEST(TlsSession, WritesNothingBeforeTheHandshake) {
  TlsEnd server(serverSettings(localIdentity()));
  server.write("early");
  EXPECT_EQ(server.status, Status::kNeedsInput);
  server.session->shutdown(&server.toSend);
  EXPECT_EQ(server.toSend, "");
}

TEST(TlsSession, SaysOnceThatItEnds) {
  Pair pair;
  pair.server.write("last");
  pair.server.session->shutdown(&pair.server.toSend);
  const size_t length = pair.server.toSend.size();
  pair.server.session->shutdown(&pair.server.toSend);
  EXPECT_EQ(pair.server.toSend.size(), length);
  exchange(pair.client, pair.server);
  EXPECT_EQ(pair.client.received, "last");
  EXPECT_EQ(pair.client.status, Status::kClosed);

  // The other direction is still open (RFC 8446 §6.1).
  pair.client.write("answer");
  EXPECT_EQ(pair.client.status, Status::kOk);
  pair.client.session->shutdown(&pair.client.toSend);
  exchange(pair.client, pair.server);
  EXPECT_EQ(pair.server.received, "answer");
  EXPECT_EQ(pair.server.status, Status::kClosed);
  pair.server.write("too late");
  EXPECT_EQ(pair.server.status, Status::kFailed);
  EXPECT_EQ(pair.server.toSend, "");
}

TEST(TlsSession, EndsWhileTicketsAreUnderWay) {
  Pair pair(4096, true);
  pair.client.session->shutdown(&pair.client.toSend);
  pair.server.take(std::exchange(pair.client.toSend, {}));
  EXPECT_EQ(pair.server.status, Status::kClosed);
  pair.server.write("answer");
  pair.client.take(std::exchange(pair.server.toSend, {}));
  EXPECT_EQ(pair.client.received, "answer");
  EXPECT_EQ(pair.client.status, Status::kNeedsInput);
}

TEST(TlsSession, IsNotMisledByFailuresElsewhereOnTheThread) {
  Pair pair;
  pair.client.write("request");
  pair.client.toSend.resize(pair.client.toSend.size() - 1);
  ERR_raise(ERR_LIB_USER, 1);
  pair.server.take(pair.client.toSend);
  EXPECT_EQ(pair.server.status, Status::kNeedsInput);
}

TEST(TlsSession, FailsOnWhatIsNotTLS) {
  const std::string cases[] = {
      "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
      "\r\n\r\n\r\n",
      std::string(64, '\0'),
      std::string("\x16\x03\x01\xFF\xFF", 5) + std::string(64, 'x'),
      std::string("\x16\x03\x01\x00\x08\x01\x00\x00\x04zzzz", 13),
      numberedBytes(5000),
  };
  for (const std::string& bytes : cases) {
    for (const size_t step : {std::string::npos, size_t{1}}) {
      TlsEnd server(serverSettings(localIdentity()));
      for (std::string rest = bytes; !rest.empty(); rest.erase(0, step)) {
        server.take(rest.substr(0, step));
      }
      EXPECT_EQ(server.status, Status::kFailed) << bytes;
      EXPECT_EQ(server.session->error().code(), kVELSocketTLSFailed);
      EXPECT_NE(server.session->error().localizedDescription(), "");
      const std::string alert = server.toSend;
      server.write("more");
      EXPECT_EQ(server.status, Status::kFailed);
      server.session->shutdown(&server.toSend);
      EXPECT_EQ(server.toSend, alert);
    }
  }
}

TEST(TlsSession, DeliversWhatCameBeforeADamagedRecord) {
  for (const size_t capacity : {size_t{3}, size_t{4096}}) {
    Pair pair(capacity);
    pair.client.write("whole");
    pair.client.write("damaged");
    pair.client.toSend.back() = static_cast<char>(pair.client.toSend.back() ^ 1);
    exchange(pair.client, pair.server);
    EXPECT_EQ(pair.server.received, "whole");
    EXPECT_EQ(pair.server.status, Status::kFailed);
    // The alert reached the peer.
    EXPECT_EQ(pair.client.status, Status::kFailed);
    EXPECT_NE(pair.client.session->error().localizedDescription().find("bad record mac"),
              std::string::npos);
  }
}

TEST(TlsSession, ChecksThePeer) {
  const TestIdentity other = makeSelfSignedIdentity(KeyKind::kEC, {"localhost"});
  const TestIdentity chained = makeChainedIdentity({"localhost"});
  TestIdentity withoutMiddle = chained;
  withoutMiddle.certificates.resize(withoutMiddle.certificates.find("-----BEGIN", 1));
  const std::string untrusted = "certificate verify failed: ";
  const TestIdentity by_the_system;  // names no root of its own
  const struct {
    const TestIdentity& server;
    const TestIdentity& trusted;
    std::string name;
    std::string error;
  } cases[] = {
      {localIdentity(), localIdentity(), "localhost", ""},
      {localIdentity(), localIdentity(), "LOCALHOST", ""},
      {localIdentity(), localIdentity(), "127.0.0.1", ""},
      {localIdentity(), localIdentity(), "a.wild.test", ""},
      {localIdentity(), localIdentity(), "a.b.wild.test", untrusted + "hostname mismatch"},
      {localIdentity(), localIdentity(), "localhost.test", untrusted + "hostname mismatch"},
      {localIdentity(), localIdentity(), "127.0.0.2", untrusted + "IP address mismatch"},
      {localIdentity(), other, "localhost", untrusted},
      {localIdentity(), by_the_system, "localhost", untrusted},
      {localIdentity(), other, "", ""},
      {chained, chained, "localhost", ""},
      {withoutMiddle, chained, "localhost", untrusted},
      {withoutMiddle, {"", "", withoutMiddle.certificates}, "localhost", ""},
  };
  for (const auto& row : cases) {
    TlsEnd client(clientSettings(row.trusted, row.name));
    TlsEnd server(serverSettings(row.server));
    client.start();
    exchange(client, server);
    const std::string description = client.session->error().localizedDescription();
    EXPECT_EQ(description.substr(0, row.error.size()), row.error) << row.name;
    EXPECT_EQ(description.empty(), row.error.empty()) << row.name << ' ' << description;
    EXPECT_EQ(client.session->isHandshakeDone(), row.error.empty());
    // The peer learns of it by an alert.
    EXPECT_EQ(server.status == Status::kFailed, !row.error.empty()) << row.name;
  }
}

TEST(TlsSession, NamesTheHostItLooksFor) {
  for (const auto& [name, isSent] :
       {std::pair<std::string, bool>{"localhost", true}, {"127.0.0.1", false}, {"::1", false}}) {
    TlsEnd client(clientSettings(localIdentity(), name));
    client.start();
    EXPECT_EQ(client.toSend.find(name) != std::string::npos, isSent) << name;
    EXPECT_NE(client.toSend.find("\x08http/1.1"), std::string::npos);
  }
}

TEST(TlsSession, RefusesSettingsThatMakeNone) {
  const VELCertificateList withoutKey =
      VELCertificate::certificatesWithPEM(localIdentity().certificates);
  const struct {
    bool isServer;
    VELCertificateList certificates;
    std::string peerName;
    VELCertificateList roots;
    VELSocketErrorCode code;
  } cases[] = {
      {true, {}, "", {}, kVELSocketBadConfiguration},
      {true, withoutKey, "", {}, kVELSocketBadConfiguration},
      {true, {nullptr}, "", {}, kVELSocketBadConfiguration},
      {false, withoutKey, "", {}, kVELSocketBadConfiguration},
      {false, {}, "localhost", {nullptr}, kVELSocketBadConfiguration},
      {false, {}, std::string("localhost\0.test", 15), {}, kVELSocketBadParameter},
      {false, {}, std::string(256, 'a'), {}, kVELSocketBadParameter},
  };
  for (const auto& row : cases) {
    VELTLSSettings settings;
    settings.isServer = row.isServer;
    settings.certificates = row.certificates;
    settings.peerName = row.peerName;
    settings.trustedRoots = row.roots;
    VELError error;
    EXPECT_EQ(TlsSession::create(settings, &error), nullptr);
    EXPECT_EQ(error.code(), row.code) << error.description();
    EXPECT_EQ(TlsSession::create(settings, nullptr), nullptr);
  }
}

}  // namespace
}  // namespace vel::test
