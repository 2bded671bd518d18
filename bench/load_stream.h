// LoadStream: one non-blocking connection of the load to the server, plain or over TLS 1.3.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace bench {

// Owner:   a value of its connection; `close` ends it.
// Shape:   `send` and `receive` tell the bytes moved, 0 for "not now" and kEnded.
class LoadStream {
 public:
  static constexpr ssize_t kEnded = -1;

  // Connects from 127.0.0.`source`; with TLS where there is a context. With `answer`, so many bytes
  // fit the receive window from the first.
  void open(std::uint16_t port, std::uint32_t source, SSL_CTX* context, std::size_t answer = 0);
  void close();

  [[nodiscard]] bool isOpen() const { return fd_ >= 0; }
  [[nodiscard]] int descriptor() const { return fd_; }
  // After a `send` of 0: whether it waits for space. If not, TLS waits for the server.
  [[nodiscard]] bool waitsForSpace() const { return waitsForSpace_; }

  ssize_t send(std::string_view bytes);
  // All that has come, as far as the buffer holds it.
  ssize_t receive(char* buffer, std::size_t size);
  // Drops up to that many bytes without copying them. Not with TLS.
  ssize_t drop(std::size_t size) const;

 private:
  ssize_t sendTLS(std::string_view bytes);
  ssize_t receiveTLS(char* buffer, std::size_t size);

  int fd_ = -1;
  bool waitsForSpace_ = false;
  SSL* tls_ = nullptr;
};

// Full handshakes only, one cipher suite: what is compared is servers, not their preferences.
SSL_CTX* makeClientContext();

}  // namespace bench
