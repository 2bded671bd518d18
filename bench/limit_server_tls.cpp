// The limit of the TLS loads: OpenSSL on a bare epoll loop, its calls straight on the socket. The
// answer of one receive is one record. It keeps no state that a server could leave out.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "limit_support.h"

namespace bench {
namespace {

[[noreturn]] void failTLS(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  ERR_print_errors_fp(stderr);
  std::exit(1);
}

SSL_CTX* makeContext(const std::string& certificate, const std::string& key) {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  if (context == nullptr) failTLS("SSL_CTX_new");
  SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  // One receive takes a whole record, not its five bytes of head first.
  SSL_CTX_set_read_ahead(context, 1);
  if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1) {
    failTLS("certificate or key");
  }
  return context;
}

class Server {
 public:
  Server(int listener, SSL_CTX* context)
      : listener_(listener), epoll_(makeEpoll(listener)), context_(context) {
    for (int i = 0; i < 64; ++i) answers_.append(kAnswer);
  }
  void run() { runLoop(epoll_, listener_, *this); }
  void acceptAll();
  void handle(int fd, std::uint32_t events);

 private:
  struct Connection {
    SSL* tls = nullptr;
    std::uint64_t owed = 0;
    std::unique_ptr<std::string> carry;  // the beginning of a head that was split
    bool waitsForSpace = false;
    bool closesAfterAnswer = false;
  };

  bool advance(int fd, Connection& connection, bool untilEnd);
  bool mayGoOn(int fd, Connection& connection, int result);
  static void digest(Connection& connection, std::string_view received);
  bool flush(int fd, Connection& connection);
  void end(int fd, Connection& connection);

  const int listener_;
  const int epoll_;
  SSL_CTX* const context_;
  std::vector<Connection> connections_;  // by descriptor
  std::string answers_;
  std::array<char, kReceiveSize> buffer_{};
};

void Server::acceptAll() {
  acceptInto(connections_, epoll_, listener_, kReadEvents, [this](int fd) {
    Connection connection;
    connection.tls = SSL_new(context_);
    if (connection.tls == nullptr || SSL_set_fd(connection.tls, fd) != 1) failTLS("SSL_new");
    SSL_set_accept_state(connection.tls);
    return connection;
  });
}

void Server::handle(int fd, std::uint32_t events) {
  Connection& connection = connections_[static_cast<std::size_t>(fd)];
  const bool ended = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  bool open = advance(fd, connection, ended);
  if (connection.owed > 0) open = flush(fd, connection) && open;
  if (connection.closesAfterAnswer && connection.owed == 0) open = false;
  if (!open) end(fd, connection);
}

// Handshakes, then reads what has come. False: ended.
bool Server::advance(int fd, Connection& connection, bool untilEnd) {
  if (SSL_is_init_finished(connection.tls) == 0) {
    const int result = SSL_accept(connection.tls);
    if (result <= 0) return mayGoOn(fd, connection, result);
    if (SSL_has_pending(connection.tls) == 0 && !untilEnd) return true;
  }
  do {
    const int count = SSL_read(connection.tls, buffer_.data(), static_cast<int>(buffer_.size()));
    if (count <= 0) return mayGoOn(fd, connection, count);
    digest(connection, {buffer_.data(), static_cast<std::size_t>(count)});
  } while (SSL_has_pending(connection.tls) != 0 || untilEnd);
  return true;
}

bool Server::mayGoOn(int fd, Connection& connection, int result) {
  const int error = SSL_get_error(connection.tls, result);
  if (error == SSL_ERROR_WANT_WRITE && !connection.waitsForSpace) {
    connection.waitsForSpace = true;
    watch(epoll_, EPOLL_CTL_MOD, fd, kReadEvents | EPOLLOUT);
  }
  return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

void Server::digest(Connection& connection, std::string_view received) {
  if (connection.closesAfterAnswer) return;
  std::string_view bytes = received;
  if (connection.carry) {
    connection.carry->append(received);
    bytes = *connection.carry;
  }
  const HeadCount count = countHeads(bytes);
  connection.owed += count.heads * kAnswer.size();
  connection.closesAfterAnswer = count.close;
  if (count.consumed < bytes.size()) {
    connection.carry = std::make_unique<std::string>(bytes.substr(count.consumed));
  } else {
    connection.carry.reset();
  }
}

bool Server::flush(int fd, Connection& connection) {
  while (connection.owed > 0) {
    const std::size_t phase =
        (kAnswer.size() - static_cast<std::size_t>(connection.owed % kAnswer.size())) %
        kAnswer.size();
    std::size_t length = answers_.size() - phase;
    if (connection.owed < length) length = static_cast<std::size_t>(connection.owed);
    const int count = SSL_write(connection.tls, answers_.data() + phase, static_cast<int>(length));
    if (count <= 0) return mayGoOn(fd, connection, count);
    connection.owed -= static_cast<std::uint64_t>(count);
  }
  return true;
}

void Server::end(int fd, Connection& connection) {
  if (SSL_is_init_finished(connection.tls) != 0) SSL_shutdown(connection.tls);
  SSL_free(connection.tls);
  ERR_clear_error();
  connection = Connection{};
  close(fd);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv, {"--port", "--certificate", "--key"});
  std::signal(SIGPIPE, SIG_IGN);
  bench::raiseDescriptorLimit();
  SSL_CTX* const context =
      bench::makeContext(arguments.value("--certificate"), arguments.value("--key"));
  const int listener = bench::listenOnLoopback(arguments.port());
  const auto server = std::make_unique<bench::Server>(listener, context);
  bench::announce(listener, "https");
  server->run();
}
