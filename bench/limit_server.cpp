// The limit: what the kernel and a bare epoll loop take for one request, with nothing of a library.
// It counts request heads and sends a fixed answer for each, all heads of one receive answered by
// one send. It knows no bodies, routes, time-outs or errors; bench/run divides by its cost.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

// As long as the answer of the library, byte for byte the same but for the date.
constexpr std::string_view kAnswer =
    "HTTP/1.1 200 OK\r\n"
    "Content-Length: 13\r\n"
    "Content-Type: text/plain; charset=utf-8\r\n"
    "Date: Sat, 01 Jan 2022 00:00:00 GMT\r\n"
    "Accept-Ranges: bytes\r\n"
    "\r\n"
    "Hello, world!";
constexpr std::size_t kAnswersPerSend = 256;
constexpr std::size_t kReceiveSize = 64 * 1024;
constexpr int kEventsPerWait = 512;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

struct HeadCount {
  std::size_t heads = 0;
  std::size_t consumed = 0;
  bool close = false;
};

// Goes from line to line: memchr over a head of 700 bytes costs less than a search for four bytes.
HeadCount countHeads(std::string_view bytes) {
  constexpr std::string_view kClose = "Connection: close\r\n";
  HeadCount count;
  std::size_t line = 0;
  bool closes = false;
  while (const void* found = std::memchr(bytes.data() + line, '\n', bytes.size() - line)) {
    const std::size_t end =
        static_cast<std::size_t>(static_cast<const char*>(found) - bytes.data()) + 1;
    const std::size_t length = end - line;
    if (length == 2 && line > count.consumed) {
      ++count.heads;
      count.consumed = end;
      count.close = closes;
      if (closes) break;
    } else if (length == kClose.size() &&
               strncasecmp(bytes.data() + line, kClose.data(), length) == 0) {
      closes = true;
    }
    line = end;
  }
  return count;
}

class Server {
 public:
  explicit Server(std::uint16_t port);
  [[nodiscard]] std::uint16_t port() const;
  [[noreturn]] void run();

 private:
  struct Connection {
    std::uint64_t owed = 0;              // bytes of answers not yet taken by the kernel
    std::unique_ptr<std::string> carry;  // the beginning of a head that was split
    bool waitsForSpace = false;
    bool closesAfterAnswer = false;
  };

  void acceptAll();
  void handle(int fd, std::uint32_t events);
  bool receive(int fd, bool untilEnd);
  void digest(Connection& connection, std::string_view received);
  bool flush(int fd);
  void watchForSpace(int fd, bool wanted);

  int listener_ = -1;
  int epoll_ = -1;
  std::vector<Connection> connections_;  // by descriptor
  std::string answers_;
  std::array<char, kReceiveSize> buffer_{};
};

Server::Server(std::uint16_t port) {
  for (std::size_t i = 0; i < kAnswersPerSend; ++i) answers_.append(kAnswer);
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener_ < 0) fail("socket");
  const int on = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // Accepted sockets inherit it on Linux: no call per connection.
  setsockopt(listener_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("bind");
  }
  if (listen(listener_, SOMAXCONN) != 0) fail("listen");
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) fail("epoll_create1");
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = listener_;
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, listener_, &event) != 0) fail("epoll_ctl");
}

std::uint16_t Server::port() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    fail("getsockname");
  }
  return ntohs(address.sin_port);
}

void Server::run() {
  std::array<epoll_event, kEventsPerWait> events{};
  for (;;) {
    const int count = epoll_wait(epoll_, events.data(), kEventsPerWait, -1);
    if (count < 0 && errno != EINTR) fail("epoll_wait");
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      if (event.data.fd == listener_) {
        acceptAll();
      } else {
        handle(event.data.fd, event.events);
      }
    }
  }
}

void Server::acceptAll() {
  for (;;) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EMFILE || errno == ENFILE) fail("accept4");
      return;
    }
    const auto index = static_cast<std::size_t>(fd);
    if (index >= connections_.size()) connections_.resize(index + 1);
    connections_[index] = Connection{};
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
    event.data.fd = fd;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
  }
}

void Server::handle(int fd, std::uint32_t events) {
  const bool ended = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  bool open = true;
  if ((events & EPOLLIN) != 0 || ended) open = receive(fd, ended);
  Connection& connection = connections_[static_cast<std::size_t>(fd)];
  if (connection.owed > 0) open = flush(fd) && open;
  if (connection.closesAfterAnswer && connection.owed == 0) open = false;
  if (!open) {
    connection = Connection{};
    close(fd);
  }
}

// One receive per event, more only while it fills the buffer or the peer has ended. False: ended.
bool Server::receive(int fd, bool untilEnd) {
  for (;;) {
    const ssize_t count = recv(fd, buffer_.data(), buffer_.size(), 0);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    const auto length = static_cast<std::size_t>(count);
    digest(connections_[static_cast<std::size_t>(fd)], {buffer_.data(), length});
    if (length < buffer_.size() && !untilEnd) return true;
  }
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

// What is owed is always the tail of a row of equal answers, so a count is all there is to keep.
bool Server::flush(int fd) {
  Connection& connection = connections_[static_cast<std::size_t>(fd)];
  while (connection.owed > 0) {
    const std::size_t phase =
        (kAnswer.size() - static_cast<std::size_t>(connection.owed % kAnswer.size())) %
        kAnswer.size();
    std::size_t length = answers_.size() - phase;
    if (connection.owed < length) length = static_cast<std::size_t>(connection.owed);
    const ssize_t count = send(fd, answers_.data() + phase, length, MSG_NOSIGNAL);
    if (count < 0) {
      if (errno != EAGAIN) {
        connection.owed = 0;
        return false;
      }
      watchForSpace(fd, true);
      return true;
    }
    connection.owed -= static_cast<std::uint64_t>(count);
  }
  watchForSpace(fd, false);
  return true;
}

void Server::watchForSpace(int fd, bool wanted) {
  Connection& connection = connections_[static_cast<std::size_t>(fd)];
  if (connection.waitsForSpace == wanted) return;
  connection.waitsForSpace = wanted;
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
  if (wanted) event.events |= EPOLLOUT;
  event.data.fd = fd;
  if (epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event) != 0) fail("epoll_ctl");
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long port = 0;
  if (argc == 3 && std::string_view(argv[1]) == "--port") {
    char* end = nullptr;
    port = std::strtoul(argv[2], &end, 10);
    if (end == argv[2] || *end != '\0' || port > 65535) {
      std::fprintf(stderr, "bench_limit_server: not a port: %s\n", argv[2]);
      return 2;
    }
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: bench_limit_server [--port PORT]\n");
    return 2;
  }
  raiseDescriptorLimit();
  const auto server = std::make_unique<Server>(static_cast<std::uint16_t>(port));
  std::printf("Listening on http://127.0.0.1:%u/\n", static_cast<unsigned>(server->port()));
  std::fflush(stdout);
  server->run();
}
