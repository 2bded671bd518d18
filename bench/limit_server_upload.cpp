// The limit of the upload loads: receives bodies, by length or chunked, drops their bytes and
// answers each request when its body has ended. One request at a time on a connection.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <vector>

#include "limit_request.h"
#include "limit_support.h"

namespace bench {
namespace {

class Server {
 public:
  explicit Server(int listener) : listener_(listener), epoll_(makeEpoll(listener)) {}
  void run() { runLoop(epoll_, listener_, *this); }
  void acceptAll() {
    acceptInto(readers_, epoll_, listener_, kReadEvents, [](int) { return RequestReader{}; });
  }
  void handle(int fd, std::uint32_t events);

 private:
  bool receive(int fd, RequestReader& reader);
  static bool digest(int fd, RequestReader& reader, std::string_view bytes);

  const int listener_;
  const int epoll_;
  std::vector<RequestReader> readers_;  // by descriptor
  std::array<char, kReceiveSize> buffer_{};
};

void Server::handle(int fd, std::uint32_t) {
  if (!receive(fd, readers_[static_cast<std::size_t>(fd)])) close(fd);
}

bool Server::receive(int fd, RequestReader& reader) {
  for (;;) {
    const ssize_t count = recv(fd, buffer_.data(), buffer_.size(), 0);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    const auto length = static_cast<std::size_t>(count);
    if (!digest(fd, reader, {buffer_.data(), length})) return false;
    if (length < buffer_.size()) return true;
  }
}

// An answer that the kernel does not take at once is given up: its client does not read.
bool Server::digest(int fd, RequestReader& reader, std::string_view bytes) {
  while (!bytes.empty()) {
    bytes.remove_prefix(reader.read(bytes));
    if (!reader.isComplete()) continue;
    reader = RequestReader{};
    const ssize_t sent = send(fd, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(kAnswer.size())) return false;
  }
  return true;
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
