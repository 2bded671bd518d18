// Sockets, epoll and the counting of heads for the limit servers.
#include "limit_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

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

int listenOnLoopback(std::uint16_t port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener < 0) fail("socket");
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // Accepted sockets inherit it on Linux: no call per connection.
  setsockopt(listener, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("bind");
  }
  if (listen(listener, SOMAXCONN) != 0) fail("listen");
  return listener;
}

int acceptFrom(int listener) {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0 && (errno == EMFILE || errno == ENFILE)) fail("accept4");
  return fd;
}

int makeEpoll(int listener) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) fail("epoll_create1");
  watch(epoll, EPOLL_CTL_ADD, listener, EPOLLIN);
  return epoll;
}

void watch(int epoll, int operation, int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(epoll, operation, fd, &event) != 0) fail("epoll_ctl");
}

void announce(int listener, const char* scheme) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    fail("getsockname");
  }
  std::printf("Listening on %s://127.0.0.1:%u/\n", scheme,
              static_cast<unsigned>(ntohs(address.sin_port)));
  std::fflush(stdout);
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

Arguments::Arguments(int argc, char** argv, std::initializer_list<std::string_view> names) {
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 == argc || std::find(names.begin(), names.end(), argv[i]) == names.end()) {
      std::fprintf(stderr, "usage: %s", argv[0]);
      for (const std::string_view name : names) {
        std::fprintf(stderr, " [%.*s VALUE]", static_cast<int>(name.size()), name.data());
      }
      std::fprintf(stderr, "\n");
      std::exit(2);
    }
    values_[argv[i]] = argv[i + 1];
  }
}

std::string Arguments::value(std::string_view name) const {
  const auto found = values_.find(name);
  return found == values_.end() ? std::string() : found->second;
}

std::uint16_t Arguments::port() const {
  const std::string text = value("--port");
  char* end = nullptr;
  const unsigned long port = std::strtoul(text.c_str(), &end, 10);
  if (*end != '\0' || port > 65535) {
    std::fprintf(stderr, "not a port: %s\n", text.c_str());
    std::exit(2);
  }
  return static_cast<std::uint16_t>(port);
}

}  // namespace bench
