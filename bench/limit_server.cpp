// The limit: what the kernel and a bare epoll loop take for one request, with nothing of a library.
// It counts request heads and sends a fixed answer for each, all heads of one receive answered by
// one send. It knows no bodies, routes, time-outs or errors; bench/run divides by its cost.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "limit_support.h"

namespace bench {
namespace {

constexpr std::size_t kAnswersPerSend = 256;

class Server {
 public:
  explicit Server(int listener);
  void run() { runLoop(epoll_, listener_, *this); }
  void acceptAll() {
    acceptInto(connections_, epoll_, listener_, kReadEvents, [](int) { return Connection{}; });
  }
  void handle(int fd, std::uint32_t events);

 private:
  struct Connection {
    std::uint64_t owed = 0;              // bytes of answers not yet taken by the kernel
    std::unique_ptr<std::string> carry;  // the beginning of a head that was split
    bool waitsForSpace = false;
    bool closesAfterAnswer = false;
  };

  bool receive(int fd, bool untilEnd);
  static void digest(Connection& connection, std::string_view received);
  bool flush(int fd);
  void watchForSpace(int fd, bool wanted);

  const int listener_;
  const int epoll_;
  std::vector<Connection> connections_;  // by descriptor
  std::string answers_;
  std::array<char, kReceiveSize> buffer_{};
};

Server::Server(int listener) : listener_(listener), epoll_(makeEpoll(listener)) {
  for (std::size_t i = 0; i < kAnswersPerSend; ++i) answers_.append(kAnswer);
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
  watch(epoll_, EPOLL_CTL_MOD, fd, wanted ? kReadEvents | EPOLLOUT : kReadEvents);
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
