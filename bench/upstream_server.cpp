// What the proxy loads have behind the server: /wait is answered after two seconds, a request with
// a body by the number of its bytes, and everything else at once, with one KiB. One thread, one
// request at a time on a connection, which ends after the answer if the request says so.
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "limit_request.h"
#include "limit_support.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kDelay{2};
constexpr std::size_t kBodySize = 1024;
constexpr std::string_view kText = "Hello, world!";

// The body is the text over and over, as the load expects it.
std::string repeatedText() {
  std::string body;
  while (body.size() < kBodySize) body.append(kText);
  body.resize(kBodySize);
  return body;
}

std::string makeAnswer(const std::string& body, bool closes) {
  std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size());
  answer +=
      "\r\nContent-Type: text/plain; charset=utf-8\r\nDate: Sat, 01 Jan 2022 00:00:00 GMT\r\n";
  if (closes) answer += "Connection: close\r\n";
  return answer + "\r\n" + body;
}

class Server {
 public:
  explicit Server(int listener);
  void run() { runLoop(epoll_, listener_, *this); }
  void acceptAll() {
    acceptInto(connections_, epoll_, listener_, kReadEvents,
               [this](int) { return Connection{.number = ++accepted_, .request = {}}; });
  }
  void handle(int fd, std::uint32_t events);

 private:
  struct Connection {
    std::uint64_t number = 0;
    RequestReader request;
  };
  // One that is to be answered later; by then its descriptor may be another connection's.
  struct Waiting {
    Clock::time_point due;
    int fd;
    std::uint64_t number;
  };

  bool receive(int fd, bool untilEnd);
  bool digest(int fd, std::string_view bytes);
  bool answer(int fd);
  void answerWaiting();
  void armTimer() const;
  void end(int fd);

  const int listener_;
  const int epoll_;
  const int timer_;
  const std::string answer_ = makeAnswer(repeatedText(), false);
  const std::string lastAnswer_ = makeAnswer(repeatedText(), true);
  std::uint64_t accepted_ = 0;
  std::vector<Connection> connections_;  // by descriptor
  std::deque<Waiting> waiting_;          // all wait as long, so the first is due first
  std::array<char, kReceiveSize> buffer_{};
};

Server::Server(int listener)
    : listener_(listener),
      epoll_(makeEpoll(listener)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (timer_ < 0) fail("timerfd_create");
  watch(epoll_, EPOLL_CTL_ADD, timer_, EPOLLIN | EPOLLET);
}

void Server::handle(int fd, std::uint32_t events) {
  if (fd == timer_) return answerWaiting();
  if (!receive(fd, (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0)) end(fd);
}

void Server::end(int fd) {
  connections_[static_cast<std::size_t>(fd)] = Connection{};
  close(fd);
}

bool Server::receive(int fd, bool untilEnd) {
  for (;;) {
    const ssize_t count = recv(fd, buffer_.data(), buffer_.size(), 0);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    const auto length = static_cast<std::size_t>(count);
    if (!digest(fd, {buffer_.data(), length})) return false;
    if (length < buffer_.size() && !untilEnd) return true;
  }
}

bool Server::digest(int fd, std::string_view bytes) {
  Connection& connection = connections_[static_cast<std::size_t>(fd)];
  while (!bytes.empty()) {
    bytes.remove_prefix(connection.request.read(bytes));
    if (!connection.request.isComplete()) continue;
    if (connection.request.head().find(" /wait ") == std::string_view::npos) {
      if (!answer(fd)) return false;
      continue;
    }
    if (!bytes.empty()) return false;  // a second request, while the first waits for its time
    waiting_.push_back({Clock::now() + kDelay, fd, connection.number});
    if (waiting_.size() == 1) armTimer();
    return true;
  }
  return true;
}

// Answers the request that is complete. False: the connection is to end. An answer that the kernel
// does not take at once is given up: its client does not read.
bool Server::answer(int fd) {
  RequestReader& request = connections_[static_cast<std::size_t>(fd)].request;
  const bool closes = contains(request.head(), "\r\nConnection: close\r\n");
  std::string counted;
  if (request.bodyLength() > 0) counted = makeAnswer(std::to_string(request.bodyLength()), closes);
  request = RequestReader{};
  const std::string& text = !counted.empty() ? counted : closes ? lastAnswer_ : answer_;
  const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(text.size()) && !closes;
}

void Server::answerWaiting() {
  while (!waiting_.empty() && waiting_.front().due <= Clock::now()) {
    const Waiting first = waiting_.front();
    waiting_.pop_front();
    const bool isOpen = connections_[static_cast<std::size_t>(first.fd)].number == first.number;
    if (isOpen && !answer(first.fd)) end(first.fd);
  }
  if (!waiting_.empty()) armTimer();
}

void Server::armTimer() const {
  const auto due = waiting_.front().due.time_since_epoch();
  const auto whole = std::chrono::duration_cast<std::chrono::seconds>(due);
  itimerspec time{};
  time.it_value.tv_sec = whole.count();
  time.it_value.tv_nsec = std::chrono::nanoseconds(due - whole).count();
  if (timerfd_settime(timer_, TFD_TIMER_ABSTIME, &time, nullptr) != 0) fail("timerfd_settime");
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
