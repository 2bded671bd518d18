// OpenSSL between two memory buffers; the wire below carries what it makes.
#include "support/tls_wire.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace vel::test {

struct TLSWire::Session {
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context{SSL_CTX_new(TLS_client_method()),
                                                            SSL_CTX_free};
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl{nullptr, SSL_free};
  // Owned by `ssl`.
  BIO* incoming = nullptr;
  BIO* outgoing = nullptr;
};

TLSWire::TLSWire(std::unique_ptr<Wire> below, const TLSOffer& offer)
    : below_(std::move(below)), session_(std::make_unique<Session>()) {
  SSL_CTX* context = session_->context.get();
  // Old versions can only be offered at all at the lowest security level.
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_min_proto_version(context, offer.lowest);
  SSL_CTX_set_max_proto_version(context, offer.highest);
  SSL_CTX_set_verify(context, offer.checksCertificate ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
  std::string protocols;
  for (const std::string& protocol : offer.protocols) {
    protocols += static_cast<char>(protocol.size());
    protocols += protocol;
  }
  SSL_CTX_set_alpn_protos(context, reinterpret_cast<const unsigned char*>(protocols.data()),
                          static_cast<unsigned>(protocols.size()));
  session_->ssl.reset(SSL_new(context));
  session_->incoming = BIO_new(BIO_s_mem());
  session_->outgoing = BIO_new(BIO_s_mem());
  SSL_set_bio(session_->ssl.get(), session_->incoming, session_->outgoing);
  for (;;) {
    // What another connection left behind would be taken for a failure of this one.
    ERR_clear_error();
    const int result = SSL_connect(session_->ssl.get());
    const int reason = SSL_get_error(session_->ssl.get(), result);
    const bool sent = flush();
    if (result == 1) break;
    if (!sent || reason != SSL_ERROR_WANT_READ || !feed()) {
      throw std::runtime_error("the TLS handshake failed");
    }
  }
}

TLSWire::~TLSWire() = default;

/// Hands what OpenSSL has written to the wire below, and `raw` with it.
bool TLSWire::flush(std::string_view raw) {
  std::string bytes(BIO_ctrl_pending(session_->outgoing), '\0');
  if (!bytes.empty()) BIO_read(session_->outgoing, bytes.data(), static_cast<int>(bytes.size()));
  bytes += raw;
  return bytes.empty() || below_->send(bytes);
}

/// Gives OpenSSL more of what the wire below receives.
bool TLSWire::feed() {
  std::string bytes;
  if (!below_->receive(bytes)) return false;
  BIO_write(session_->incoming, bytes.data(), static_cast<int>(bytes.size()));
  return true;
}

bool TLSWire::sendBefore(std::string_view bytes, std::string_view raw) {
  if (bytes.empty()) return true;
  ERR_clear_error();
  return SSL_write(session_->ssl.get(), bytes.data(), static_cast<int>(bytes.size())) > 0 &&
         flush(raw);
}

bool TLSWire::receive(std::string& received) {
  std::array<char, 65536> buffer;
  for (;;) {
    ERR_clear_error();
    const int count = SSL_read(session_->ssl.get(), buffer.data(), static_cast<int>(buffer.size()));
    if (count > 0) {
      received.append(buffer.data(), static_cast<size_t>(count));
      return true;
    }
    if (SSL_get_error(session_->ssl.get(), count) != SSL_ERROR_WANT_READ || !feed()) return false;
  }
}

void TLSWire::finishSending() {
  SSL_shutdown(session_->ssl.get());
  flush();
  below_->finishSending();
}

void TLSWire::reset() { below_->reset(); }

std::string TLSWire::version() const { return SSL_get_version(session_->ssl.get()); }

std::string TLSWire::protocol() const {
  const unsigned char* name = nullptr;
  unsigned length = 0;
  SSL_get0_alpn_selected(session_->ssl.get(), &name, &length);
  return std::string(reinterpret_cast<const char*>(name), length);
}

}  // namespace vel::test
