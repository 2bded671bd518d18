// The limit of the loads that fetch files: opens the file that a GET names, sends it and closes it,
// each time. One request at a time on a connection; no types, ranges, conditions or error answers.
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "limit_support.h"

namespace bench {
namespace {

// As long as what the library sends; the length of the file and an empty line follow.
constexpr std::string_view kHead =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: text/javascript\r\n"
    "Date: Sat, 01 Jan 2022 00:00:00 GMT\r\n"
    "Accept-Ranges: bytes\r\n"
    "Content-Length: ";
constexpr std::size_t kLengthSize = 20;
// Up to here a file goes out in one send with its head: copying it costs less than a second call.
constexpr off_t kInOneSend = off_t{48} * 1024;
// Space is announced only after a send has found none, so that it can be listened for from the
// first: no call to begin and to end it.
constexpr std::uint32_t kEvents = kReadEvents | EPOLLOUT;

class Server {
 public:
  Server(int listener, int directory);
  void run() { runLoop(epoll_, listener_, *this); }
  void acceptAll() {
    acceptInto(connections_, epoll_, listener_, kEvents, [](int) { return Connection{}; });
  }
  void handle(int fd, std::uint32_t events);

 private:
  struct Connection {
    int file = -1;
    off_t offset = 0;
    off_t size = 0;
    std::string carry;  // the beginning of a head that was split
  };

  bool receive(int fd, Connection& connection);
  bool open(Connection& connection, std::string_view head);
  bool begin(int fd, Connection& connection);
  static bool proceed(int fd, Connection& connection);

  const int listener_;
  const int directory_;
  const int epoll_;
  std::vector<Connection> connections_;  // by descriptor
  std::array<char, kReceiveSize> received_{};
  std::array<char, kHead.size() + kLengthSize + 4 + kInOneSend> answer_{};
};

Server::Server(int listener, int directory)
    : listener_(listener), directory_(directory), epoll_(makeEpoll(listener)) {
  std::copy(kHead.begin(), kHead.end(), answer_.begin());
}

void Server::handle(int fd, std::uint32_t events) {
  Connection& connection = connections_[static_cast<std::size_t>(fd)];
  bool goesOn = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) == 0;
  if (goesOn && connection.file >= 0) {
    goesOn = proceed(fd, connection);
  } else if (goesOn && (events & EPOLLIN) != 0) {
    goesOn = receive(fd, connection);
  }
  if (goesOn) return;
  if (connection.file >= 0) close(connection.file);
  connection = Connection{};
  close(fd);
}

// One receive: a client that waits for its answer sends nothing beyond the head. False: ended.
bool Server::receive(int fd, Connection& connection) {
  const ssize_t count = recv(fd, received_.data(), received_.size(), 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  if (count == 0) return false;
  std::string_view bytes(received_.data(), static_cast<std::size_t>(count));
  if (!connection.carry.empty()) bytes = connection.carry.append(bytes);
  if (countHeads(bytes).heads == 0) {
    if (connection.carry.empty()) connection.carry = bytes;
    return true;
  }
  const bool isOpen = open(connection, bytes);
  connection.carry.clear();
  return isOpen && begin(fd, connection);
}

// The path is used as it stands: no decoding, no query.
bool Server::open(Connection& connection, std::string_view head) {
  constexpr std::size_t kPath = std::string_view("GET /").size();
  char path[256];
  const std::size_t end = head.find(' ', kPath);
  if (end == std::string_view::npos || end - kPath >= sizeof path) return false;
  *std::copy(head.begin() + kPath, head.begin() + static_cast<std::ptrdiff_t>(end), path) = '\0';
  connection.file = openat(directory_, path, O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (connection.file < 0 || fstat(connection.file, &status) != 0) return false;
  connection.offset = 0;
  connection.size = status.st_size;
  return true;
}

// A head that the kernel does not take at once is given up: nothing else is on its way.
bool Server::begin(int fd, Connection& connection) {
  constexpr std::string_view kEnd = "\r\n\r\n";
  char* const digits = answer_.data() + kHead.size();
  char* const digitsEnd = std::to_chars(digits, digits + kLengthSize, connection.size).ptr;
  char* const body = std::copy(kEnd.begin(), kEnd.end(), digitsEnd);
  const auto headLength = body - answer_.data();
  auto length = static_cast<std::size_t>(headLength);
  const bool together = connection.size <= kInOneSend;
  if (together) {
    const auto size = static_cast<std::size_t>(connection.size);
    if (read(connection.file, body, size) != connection.size) return false;
    length += size;
  }
  const ssize_t count =
      send(fd, answer_.data(), length, together ? MSG_NOSIGNAL : MSG_NOSIGNAL | MSG_MORE);
  if (count < headLength) return false;
  connection.offset = count - headLength;
  return proceed(fd, connection);
}

// Sends what is left of the file until the socket is full. False: ended, or the file has shrunk.
bool Server::proceed(int fd, Connection& connection) {
  while (connection.offset < connection.size) {
    const ssize_t count = sendfile(fd, connection.file, &connection.offset,
                                   static_cast<std::size_t>(connection.size - connection.offset));
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
  }
  close(connection.file);
  connection.file = -1;
  return true;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv, {"--port", "--directory"});
  std::signal(SIGPIPE, SIG_IGN);  // sendfile has no flag against it
  bench::raiseDescriptorLimit();
  const std::string path = arguments.value("--directory");
  const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) bench::fail("--directory");
  const int listener = bench::listenOnLoopback(arguments.port());
  const auto server = std::make_unique<bench::Server>(listener, directory);
  bench::announce(listener, "http");
  server->run();
}
