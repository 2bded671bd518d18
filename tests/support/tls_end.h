// Ends of TLS connections in memory: ours, and a client made of bare OpenSSL for what ours would not
// do. `exchange` carries the bytes between two of them.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/openssl_support.h"
#include "platform/tls_session.h"

namespace vel::test {

/// A session with what it wants to send and what it has decrypted.
class TlsEnd {
 public:
  explicit TlsEnd(const VELTLSSettings& settings, size_t capacity = 4096);

  /// Gives `bytes` to the handshake and then to reads, until they are used up or something is wrong.
  void take(std::string_view bytes);
  /// Begins the handshake, as a client does.
  void start() { take({}); }
  void write(std::string_view data) { status = session->write(data, &toSend); }

  std::unique_ptr<TlsSession> session;
  std::string toSend;
  std::string received;
  TlsSession::Status status = TlsSession::Status::kNeedsInput;

 private:
  std::vector<uint8_t> buffer_;
};

/// A client that trusts everybody.
class ForeignClient {
 public:
  /// `configure` gets the connection before its first byte.
  template <typename Configure>
  explicit ForeignClient(const Configure& configure) : ForeignClient() {
    configure(ssl.get());
  }

  void take(std::string_view bytes);
  void start() { take({}); }
  void write(std::string_view data);

  SSLContextPointer context;
  std::unique_ptr<SSL, OpenSSLFree<SSL_free>> ssl;
  std::string toSend;
  std::string received;

 private:
  ForeignClient();
  void collect();

  BIO* input_ = nullptr;
  BIO* output_ = nullptr;
};

/// Carries bytes both ways, `step` at a time, until neither end has any. Each piece has a memory block
/// of its own, so that reading beyond it is noticed.
template <typename A, typename B>
void exchange(A& a, B& b, size_t step = std::string::npos) {
  const auto carry = [step](auto& from, auto& to) {
    const std::string bytes = std::exchange(from.toSend, {});
    for (size_t at = 0; at < bytes.size(); at += std::min(step, bytes.size() - at)) {
      const std::string_view part = std::string_view(bytes).substr(at, step);
      const std::vector<char> piece(part.begin(), part.end());
      to.take({piece.data(), piece.size()});
    }
  };
  while (!a.toSend.empty() || !b.toSend.empty()) {
    carry(a, b);
    carry(b, a);
  }
}

}  // namespace vel::test
