// What the limit servers share: the answer, the way to count request heads, a listener, epoll and
// the command line. Each server's own loop stands in its own file.
#pragma once

#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// As long as the answer of the library, byte for byte the same but for the date.
inline constexpr std::string_view kAnswer =
    "HTTP/1.1 200 OK\r\n"
    "Content-Length: 13\r\n"
    "Content-Type: text/plain; charset=utf-8\r\n"
    "Date: Sat, 01 Jan 2022 00:00:00 GMT\r\n"
    "Accept-Ranges: bytes\r\n"
    "\r\n"
    "Hello, world!";
inline constexpr std::size_t kReceiveSize = 64 * 1024;
inline constexpr int kEventsPerWait = 512;
inline constexpr std::uint32_t kReadEvents = EPOLLIN | EPOLLRDHUP | EPOLLET;

[[noreturn]] void fail(const char* what);

struct HeadCount {
  std::size_t heads = 0;
  std::size_t consumed = 0;
  bool close = false;
};

// Counts complete request heads, up to one that asks for the connection's end.
HeadCount countHeads(std::string_view bytes);

// A non-blocking listener on 127.0.0.1 that accepts sockets without Nagle's delay.
int listenOnLoopback(std::uint16_t port);
// A connection, or -1 when none waits.
int acceptFrom(int listener);
int makeEpoll(int listener);
void watch(int epoll, int operation, int fd, std::uint32_t events);
// Prints the line that bench/run waits for.
void announce(int listener, const char* scheme);
void raiseDescriptorLimit();

// The command line: names with their values. Any other name ends the program.
class Arguments {
 public:
  Arguments(int argc, char** argv, std::initializer_list<std::string_view> names);
  // Empty when it was not given.
  [[nodiscard]] std::string value(std::string_view name) const;
  [[nodiscard]] std::uint16_t port() const;

 private:
  std::map<std::string, std::string, std::less<>> values_;
};

// Accepts all that wait. `connections` has one by descriptor, which `begin(fd)` gives.
template <typename Connection, typename Begin>
void acceptInto(std::vector<Connection>& connections, int epoll, int listener, std::uint32_t events,
                Begin begin) {
  for (int fd = acceptFrom(listener); fd >= 0; fd = acceptFrom(listener)) {
    const auto index = static_cast<std::size_t>(fd);
    if (index >= connections.size()) connections.resize(index + 1);
    connections[index] = begin(fd);
    watch(epoll, EPOLL_CTL_ADD, fd, events);
  }
}

// Waits for events for ever: `acceptAll()` is for those of the listener, `handle(fd, events)` for
// all others.
template <typename Server>
[[noreturn]] void runLoop(int epoll, int listener, Server& server) {
  epoll_event events[kEventsPerWait];
  for (;;) {
    const int count = epoll_wait(epoll, events, kEventsPerWait, -1);
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[i];
      if (event.data.fd == listener) {
        server.acceptAll();
      } else {
        server.handle(event.data.fd, event.events);
      }
    }
  }
}

}  // namespace bench
