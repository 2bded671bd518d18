// Sockets of the load, and OpenSSL straight on them.
#include "load_stream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "load_options.h"

namespace bench {
namespace {

constexpr std::string_view kCongestionControl = "reno";  // always there
constexpr std::size_t kLeastReceiveBuffer = std::size_t{128} * 1024;

// An answer that waits for the window would go out in part while the load reads, in its time and
// not the server's. The kernel doubles the size, and takes half of it for the window.
void widenWindow(int fd, std::size_t answer) {
  const int size = static_cast<int>(std::max(kLeastReceiveBuffer, 2 * answer));
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) == 0) return;
  int actual = 0;
  socklen_t length = sizeof actual;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0 ||
      getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &actual, &length) != 0) {
    failSystem("SO_RCVBUF");
  }
  if (actual < 2 * size) fail("net.core.rmem_max is below " + std::to_string(size));
}

// What a receive has moved, in the words of LoadStream.
ssize_t moved(ssize_t count) {
  if (count > 0) return count;
  return count < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : LoadStream::kEnded;
}

}  // namespace

void LoadStream::open(std::uint16_t port, std::uint32_t source, SSL_CTX* context,
                      std::size_t answer) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) failSystem("socket");
  const int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  // Where the system paces by measured bandwidth, uploads to a server under a tracer would crawl.
  setsockopt(fd_, IPPROTO_TCP, TCP_CONGESTION, kCongestionControl.data(),
             kCongestionControl.size());
  if (answer > 0) widenWindow(fd_, answer);
  setsockopt(fd_, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + source);
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    failSystem("bind");
  }
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno != EINPROGRESS) {
    failSystem("connect");
  }
  if (context == nullptr) return;
  tls_ = SSL_new(context);
  if (tls_ == nullptr || SSL_set_fd(tls_, fd_) != 1) fail("SSL_new failed");
  SSL_set_connect_state(tls_);
}

void LoadStream::close() {
  SSL_free(std::exchange(tls_, nullptr));
  ::close(std::exchange(fd_, -1));
  waitsForSpace_ = false;
}

ssize_t LoadStream::send(std::string_view bytes) {
  if (tls_ != nullptr) return sendTLS(bytes);
  const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  waitsForSpace_ = count < 0 && errno == EAGAIN;
  return waitsForSpace_ ? 0 : count;
}

ssize_t LoadStream::sendTLS(std::string_view bytes) {
  const int count = SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size()));
  waitsForSpace_ = false;
  if (count > 0) return count;
  const int error = SSL_get_error(tls_, count);
  ERR_clear_error();
  waitsForSpace_ = error == SSL_ERROR_WANT_WRITE;
  return waitsForSpace_ || error == SSL_ERROR_WANT_READ ? 0 : kEnded;
}

ssize_t LoadStream::receive(char* buffer, std::size_t size) {
  if (tls_ != nullptr) return receiveTLS(buffer, size);
  return moved(recv(fd_, buffer, size, 0));
}

ssize_t LoadStream::drop(std::size_t size) const {
  return moved(recv(fd_, nullptr, size, MSG_TRUNC));
}

ssize_t LoadStream::receiveTLS(char* buffer, std::size_t size) {
  std::size_t taken = 0;
  while (taken < size) {
    const int count = SSL_read(tls_, buffer + taken, static_cast<int>(size - taken));
    if (count > 0) {
      taken += static_cast<std::size_t>(count);
      continue;
    }
    const int error = SSL_get_error(tls_, count);
    ERR_clear_error();
    if (taken > 0 || error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) break;
    if (error != SSL_ERROR_ZERO_RETURN) return kEnded;
    // The server has said goodbye; its close is what is waited for, so that nothing is reset.
    return recv(fd_, buffer, size, 0) < 0 && errno == EAGAIN ? 0 : kEnded;
  }
  return static_cast<ssize_t>(taken);
}

SSL_CTX* makeClientContext() {
  SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
  char groups[] = "X25519";  // OpenSSL's macro casts away a const
  if (context == nullptr || SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) != 1 ||
      SSL_CTX_set_ciphersuites(context, "TLS_AES_128_GCM_SHA256") != 1 ||
      SSL_CTX_set1_groups_list(context, groups) != 1) {
    fail("OpenSSL does not know what a TLS 1.3 client needs");
  }
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  return context;
}

}  // namespace bench
