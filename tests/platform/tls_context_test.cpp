// The rules that TLS contexts set, seen from clients of other making, and the cache of contexts.
#include "platform/tls_context.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>

#include "corvane/socket.h"
#include "support/test_certificate.h"
#include "support/tls_end.h"

namespace vel::test {
namespace {

using Status = TlsSession::Status;

VELTLSSettings freshServerSettings() {
  static const TestIdentity identity = makeSelfSignedIdentity(KeyKind::kEC, {"localhost"});
  VELTLSSettings settings;
  settings.isServer = true;
  settings.certificates =
      VELIdentity::certificateListWithPEM(identity.certificates, identity.privateKey);
  return settings;
}

void offerProtocols(SSL* ssl, const std::string& list) {
  SSL_set_alpn_protos(ssl, reinterpret_cast<const unsigned char*>(list.data()),
                      static_cast<unsigned>(list.size()));
}

TEST(TlsContext, RefusesClientsWithAnAlert) {
  const struct {
    const char* name;
    int version;  // the newest that it speaks
    const char* ciphers;
    const char* protocols;
    char alert;  // RFC 8446 §6
  } cases[] = {
      {"TLS 1.1", TLS1_1_VERSION, "ALL:@SECLEVEL=0", "", 70},
      {"no forward secrecy", TLS1_2_VERSION, "AES128-GCM-SHA256", "", 40},
      {"HTTP/2 only", TLS1_3_VERSION, "DEFAULT", "\x02h2", 120},
      {"HTTP/2 only, TLS 1.2", TLS1_2_VERSION, "DEFAULT", "\x02h2", 120},
  };
  for (const auto& row : cases) {
    ForeignClient client([&row](SSL* ssl) {
      SSL_set_min_proto_version(ssl, TLS1_VERSION);
      SSL_set_max_proto_version(ssl, row.version);
      SSL_set_cipher_list(ssl, row.ciphers);
      offerProtocols(ssl, row.protocols);
    });
    TlsEnd server(freshServerSettings());
    client.start();
    ASSERT_FALSE(client.toSend.empty()) << row.name;
    server.take(client.toSend);
    EXPECT_EQ(server.status, Status::kFailed) << row.name;
    ASSERT_EQ(server.toSend.size(), 7U) << row.name;
    EXPECT_EQ(server.toSend.front(), '\x15') << row.name;
    EXPECT_EQ(server.toSend.back(), row.alert) << row.name;
  }
}

TEST(TlsContext, AcceptsClients) {
  const struct {
    int version;
    std::string offered;
    std::string selected;
  } cases[] = {
      {TLS1_2_VERSION, "", ""},
      {TLS1_3_VERSION, "", ""},
      {TLS1_2_VERSION, "\x08http/1.1", "http/1.1"},
      {TLS1_3_VERSION, "\x02h2\x08http/1.1\x08http/1.0", "http/1.1"},
  };
  for (const auto& row : cases) {
    ForeignClient client([&row](SSL* ssl) {
      SSL_set_max_proto_version(ssl, row.version);
      offerProtocols(ssl, row.offered);
    });
    TlsEnd server(freshServerSettings());
    client.start();
    exchange(client, server);
    EXPECT_EQ(SSL_version(client.ssl.get()), row.version);
    const unsigned char* selected = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(client.ssl.get(), &selected, &length);
    EXPECT_EQ(std::string(selected, selected + length), row.selected);
    // New keys on the way (RFC 8446 §4.6.3), for both directions.
    const bool updates = row.version == TLS1_3_VERSION;
    EXPECT_EQ(SSL_key_update(client.ssl.get(), SSL_KEY_UPDATE_REQUESTED) == 1, updates);
    client.write("request");
    exchange(client, server, 1);
    server.write("answer");
    exchange(client, server, 1);
    EXPECT_EQ(server.received, "request");
    EXPECT_EQ(client.received, "answer");
  }
}

TEST(TlsContext, RefusesRenegotiation) {
  ForeignClient client([](SSL* ssl) { SSL_set_max_proto_version(ssl, TLS1_2_VERSION); });
  TlsEnd server(freshServerSettings());
  client.start();
  exchange(client, server);
  ASSERT_EQ(SSL_renegotiate(client.ssl.get()), 1);
  client.start();
  ASSERT_FALSE(client.toSend.empty());
  server.take(std::exchange(client.toSend, {}));
  EXPECT_EQ(server.status, Status::kNeedsInput);
  // One alert, no new handshake.
  ASSERT_FALSE(server.toSend.empty());
  EXPECT_EQ(server.toSend.front(), '\x15');
  EXPECT_LT(server.toSend.size(), 40U);
}

TEST(TlsContext, ResumesSessionsOfItsOtherConnections) {
  const VELTLSSettings settings = freshServerSettings();
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    SSL_SESSION* session = nullptr;
    for (const bool isSecond : {false, true}) {
      ForeignClient client([&](SSL* ssl) {
        SSL_set_max_proto_version(ssl, version);
        if (isSecond) SSL_set_session(ssl, session);
      });
      TlsEnd server(settings);
      client.start();
      exchange(client, server);
      EXPECT_EQ(SSL_session_reused(client.ssl.get()) == 1, isSecond) << version;
      SSL_shutdown(client.ssl.get());  // Without it, OpenSSL takes the session for damaged.
      SSL_SESSION_free(session);
      session = isSecond ? nullptr : SSL_get1_session(client.ssl.get());
    }
  }
}

TEST(TlsContext, IsSharedByEqualSettingsOnly) {
  const VELTLSSettings settings = freshServerSettings();
  const std::shared_ptr<TlsContext> context = tlsContextForSettings(settings, nullptr);
  ASSERT_NE(context, nullptr);
  const VELTLSSettings copy = settings;
  EXPECT_EQ(tlsContextForSettings(copy, nullptr), context);

  // Equal bytes are not the same identity.
  EXPECT_NE(tlsContextForSettings(freshServerSettings(), nullptr), context);
  VELTLSSettings longer = settings;
  longer.certificates.push_back(freshServerSettings().certificates.front());
  EXPECT_NE(tlsContextForSettings(longer, nullptr), context);
  VELTLSSettings client = settings;
  client.isServer = false;
  const std::shared_ptr<TlsContext> clientContext = tlsContextForSettings(client, nullptr);
  EXPECT_NE(clientContext, context);
  client.peerName = "localhost";
  EXPECT_EQ(tlsContextForSettings(client, nullptr), clientContext);
  client.trustedRoots = settings.certificates;
  EXPECT_NE(tlsContextForSettings(client, nullptr), clientContext);
  EXPECT_EQ(tlsContextForSettings(settings, nullptr), context);
}

TEST(TlsContext, GoesAwayWithItsCertificates) {
  VELTLSSettings settings = freshServerSettings();
  const std::weak_ptr<TlsContext> context = tlsContextForSettings(settings, nullptr);
  const std::weak_ptr<const VELCertificate> certificate = settings.certificates.front();
  EXPECT_FALSE(context.expired());
  settings.certificates.clear();
  EXPECT_TRUE(certificate.expired());
  ASSERT_NE(tlsContextForSettings(freshServerSettings(), nullptr), nullptr);
  EXPECT_TRUE(context.expired());
}

TEST(TlsContext, IsOneForThreadsThatAskAtOnce) {
  const VELTLSSettings settings = freshServerSettings();
  std::vector<std::shared_ptr<TlsContext>> contexts(4);
  std::vector<std::jthread> threads;
  for (std::shared_ptr<TlsContext>& context : contexts) {
    threads.emplace_back([&] { context = tlsContextForSettings(settings, nullptr); });
  }
  threads.clear();
  for (const std::shared_ptr<TlsContext>& context : contexts) {
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context, contexts.front());
  }
}

}  // namespace
}  // namespace vel::test
