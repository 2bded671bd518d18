// The limit of the upload loads: receives bodies, by length or chunked, drops their bytes and
// answers each request when its body has ended. One request at a time on a connection.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "limit_support.h"

namespace bench {
namespace {

class Server {
 public:
  explicit Server(int listener) : listener_(listener), epoll_(makeEpoll(listener)) {}
  void run() { runLoop(epoll_, listener_, *this); }
  void acceptAll() {
    acceptInto(connections_, epoll_, listener_, kReadEvents, [](int) { return Connection{}; });
  }
  void handle(int fd, std::uint32_t events);

 private:
  // kHead -> kBody -> kHead for a length; kHead -> (kSize -> kBody)* -> kHead for chunks. A chunk's
  // body holds the line end after it; that of the last chunk is the end of an empty trailer.
  enum class State { kHead, kSize, kBody };
  struct Connection {
    State state = State::kHead;
    bool chunked = false;
    bool lastChunk = false;
    std::uint64_t remaining = 0;  // of the body or chunk; while kSize, the size read so far
    std::string head;
  };

  static bool receive(int fd, Connection& connection, std::array<char, kReceiveSize>& buffer);
  static bool digest(int fd, Connection& connection, std::string_view bytes);
  static std::size_t readHead(Connection& connection, std::string_view bytes);
  static std::size_t readSize(Connection& connection, std::string_view bytes);

  const int listener_;
  const int epoll_;
  std::vector<Connection> connections_;  // by descriptor
  std::array<char, kReceiveSize> buffer_{};
};

void Server::handle(int fd, std::uint32_t) {
  if (!receive(fd, connections_[static_cast<std::size_t>(fd)], buffer_)) close(fd);
}

bool Server::receive(int fd, Connection& connection, std::array<char, kReceiveSize>& buffer) {
  for (;;) {
    const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    const auto length = static_cast<std::size_t>(count);
    if (!digest(fd, connection, {buffer.data(), length})) return false;
    if (length < buffer.size()) return true;
  }
}

// An answer that the kernel does not take at once is given up: its client does not read.
bool Server::digest(int fd, Connection& connection, std::string_view bytes) {
  while (!bytes.empty()) {
    std::size_t used = 0;
    if (connection.state == State::kHead) {
      used = readHead(connection, bytes);
    } else if (connection.state == State::kSize) {
      used = readSize(connection, bytes);
    } else {
      used = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), connection.remaining));
      connection.remaining -= used;
    }
    bytes.remove_prefix(used);
    if (connection.state != State::kBody || connection.remaining > 0) continue;
    if (connection.chunked && !connection.lastChunk) {
      connection.state = State::kSize;
      continue;
    }
    connection = Connection{};
    const ssize_t sent = send(fd, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(kAnswer.size())) return false;
  }
  return true;
}

std::size_t Server::readHead(Connection& connection, std::string_view bytes) {
  constexpr std::string_view kLength = "\r\nContent-Length: ";
  const std::size_t before = connection.head.size();
  connection.head.append(bytes);
  const std::size_t end = connection.head.find("\r\n\r\n");
  if (end == std::string::npos) return bytes.size();
  const std::size_t length = connection.head.find(kLength);
  connection.chunked = connection.head.find("\r\nTransfer-Encoding: chunked") < end;
  if (length < end) {
    connection.remaining =
        std::strtoull(connection.head.c_str() + length + kLength.size(), nullptr, 10);
  }
  connection.state = connection.chunked ? State::kSize : State::kBody;
  connection.head.clear();
  return end + 4 - before;
}

std::size_t Server::readSize(Connection& connection, std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (c == '\n') {
      connection.lastChunk = connection.remaining == 0;
      connection.remaining += 2;
      connection.state = State::kBody;
      return i + 1;
    }
    if (c == '\r') continue;
    const int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
    connection.remaining = connection.remaining * 16 + static_cast<std::uint64_t>(digit);
  }
  return bytes.size();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv, {"--port"});
  bench::raiseDescriptorLimit();
  const int listener = bench::listenOnLoopback(arguments.port());
  const auto server = std::make_unique<bench::Server>(listener);
  bench::announce(listener, "http");
  server->run();
}
