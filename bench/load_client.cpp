// The load: one thread that keeps a fixed number of connections busy with a fixed number of
// requests, checks every answer, and tells bench/run when the counted part begins and ends. It
// measures nothing itself: what counts is the server's processor time, read by bench/run.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kReceiveSize = 64 * 1024;
constexpr int kEventsPerWait = 512;
constexpr int kStallMilliseconds = 20'000;
// Sources 127.0.0.2 and up: the ports of one address would be used up by connections in TIME_WAIT.
constexpr std::uint32_t kSourceAddresses = 64;
constexpr std::uint64_t kErrorsToGiveUp = 1000;

// What a desktop browser sends for a page: about 700 bytes.
constexpr std::string_view kBrowserHead =
    "Connection: keep-alive\r\n"
    "Cache-Control: max-age=0\r\n"
    "sec-ch-ua: \"Chromium\";v=\"124\", \"Not-A.Brand\";v=\"99\"\r\n"
    "sec-ch-ua-mobile: ?0\r\n"
    "sec-ch-ua-platform: \"Linux\"\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/124.0.0.0 Safari/537.36\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,"
    "image/apng,*/*;q=0.8\r\n"
    "Sec-Fetch-Site: none\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Sec-Fetch-User: ?1\r\n"
    "Sec-Fetch-Dest: document\r\n"
    "Accept-Encoding: gzip, deflate, br, zstd\r\n"
    "Accept-Language: en-GB,en;q=0.9,de;q=0.8\r\n"
    "Referer: http://127.0.0.1:8080/start\r\n"
    "Cookie: theme=dark; session=4f1c6b0a9d2e\r\n";

struct Options {
  std::uint16_t port = 0;
  std::size_t connections = 64;
  std::size_t depth = 1;
  std::uint64_t requests = 10'000;
  std::uint64_t warmup = 0;
  std::string path = "/";
  std::string expect = "Hello, world!";
  bool browserHead = false;
  bool idle = false;            // opens the connections in small groups, then holds them
  bool newConnections = false;  // one request per connection, which the server closes
  bool waits = false;           // for a line on standard input before and after the counted part
};

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "bench_load_client: %s\n", what.c_str());
  std::exit(1);
}

[[noreturn]] void failSystem(const char* what) {
  fail(std::string(what) + ": " + std::strerror(errno));
}

struct Answer {
  std::size_t length = 0;
  bool good = false;
};

// The first answer in the bytes, or nothing while it is not complete.
std::optional<Answer> readAnswer(std::string_view bytes, std::string_view expected) {
  constexpr std::string_view kName = "\nContent-Length:";
  const std::size_t end = bytes.find("\r\n\r\n");
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view head = bytes.substr(0, end + 2);
  std::size_t bodyLength = 0;
  bool hasLength = false;
  for (std::size_t line = head.find('\n'); line + kName.size() < head.size();
       line = head.find('\n', line + 1)) {
    if (strncasecmp(head.data() + line, kName.data(), kName.size()) != 0) continue;
    bodyLength = std::strtoul(head.data() + line + kName.size(), nullptr, 10);
    hasLength = true;
    break;
  }
  Answer answer;
  answer.length = end + 4 + bodyLength;
  if (bytes.size() < answer.length) return std::nullopt;
  answer.good = hasLength && head.substr(0, 13) == "HTTP/1.1 200 " &&
                bytes.substr(end + 4, bodyLength) == expected;
  return answer;
}

class Load {
 public:
  explicit Load(const Options& options);
  // Sends that many requests over `count` connections from `first` on, opening those that are
  // not open, and returns when each has been answered or has failed.
  void run(std::uint64_t requests, std::size_t first, std::size_t count);
  [[nodiscard]] std::uint64_t errors() const { return errors_; }
  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

 private:
  struct Connection {
    int fd = -1;
    std::size_t outstanding = 0;
    std::size_t unsent = 0;    // bytes at the end of the row of requests
    std::size_t rowBytes = 0;  // length of the row of requests being sent
    bool watchesSpace = false;
    std::string carry;  // the beginning of an answer that was split
  };

  void connect(std::size_t index);
  void disconnect(Connection& connection);
  void watch(std::size_t index, int operation, std::uint32_t events) const;
  void begin(std::size_t index);
  void send(std::size_t index);
  void handle(std::size_t index, std::uint32_t events);
  void receive(std::size_t index);
  void digest(std::size_t index, std::string_view bytes);
  void ended(std::size_t index);
  void countError(std::uint64_t lost);

  const Options& options_;
  std::string requests_;  // `depth` requests in a row
  std::size_t requestLength_ = 0;
  std::vector<Connection> connections_;
  std::array<char, kReceiveSize> buffer_{};
  int epoll_ = -1;
  std::uint32_t nextSource_ = 0;
  std::uint64_t toSend_ = 0;
  std::uint64_t toFinish_ = 0;
  std::uint64_t errors_ = 0;
  std::uint64_t bytes_ = 0;
};

Load::Load(const Options& options) : options_(options), connections_(options.connections) {
  std::string request = "GET " + options.path + " HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n";
  if (options.browserHead) request += kBrowserHead;
  if (options.newConnections) request += "Connection: close\r\n";
  request += "\r\n";
  requestLength_ = request.size();
  for (std::size_t i = 0; i < options.depth; ++i) requests_ += request;
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) failSystem("epoll_create1");
}

void Load::connect(std::size_t index) {
  Connection& connection = connections_[index];
  connection = Connection{};
  connection.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (connection.fd < 0) failSystem("socket");
  const int on = 1;
  setsockopt(connection.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(connection.fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1 + nextSource_++ % kSourceAddresses);
  if (bind(connection.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    failSystem("bind");
  }
  address.sin_port = htons(options_.port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(connection.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno != EINPROGRESS) {
    failSystem("connect");
  }
  watch(index, EPOLL_CTL_ADD, EPOLLIN | EPOLLOUT);
  connection.watchesSpace = true;
}

void Load::disconnect(Connection& connection) {
  close(connection.fd);
  connection.fd = -1;
}

void Load::watch(std::size_t index, int operation, std::uint32_t events) const {
  epoll_event event{};
  event.events = events;
  event.data.u64 = index;
  if (epoll_ctl(epoll_, operation, connections_[index].fd, &event) != 0) failSystem("epoll_ctl");
}

void Load::run(std::uint64_t requests, std::size_t first, std::size_t count) {
  toSend_ = requests;
  toFinish_ = requests;
  for (std::size_t i = first; i < first + count; ++i) begin(i);
  std::array<epoll_event, kEventsPerWait> events{};
  while (toFinish_ > 0) {
    const int ready = epoll_wait(epoll_, events.data(), kEventsPerWait, kStallMilliseconds);
    if (ready < 0 && errno != EINTR) failSystem("epoll_wait");
    if (ready == 0) fail(std::to_string(toFinish_) + " requests were not answered");
    for (int i = 0; i < ready; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      handle(static_cast<std::size_t>(event.data.u64), event.events);
    }
  }
}

// Starts the next row of requests on a connection with none outstanding.
void Load::begin(std::size_t index) {
  if (toSend_ == 0) return;
  Connection& connection = connections_[index];
  if (connection.fd < 0) connect(index);
  connection.outstanding = options_.depth;
  if (toSend_ < connection.outstanding) connection.outstanding = static_cast<std::size_t>(toSend_);
  toSend_ -= connection.outstanding;
  connection.rowBytes = connection.outstanding * requestLength_;
  connection.unsent = connection.rowBytes;
  // A fresh connection sends when it is told to be open, as a client at a distance would.
  if (!connection.watchesSpace) send(index);
}

void Load::send(std::size_t index) {
  Connection& connection = connections_[index];
  while (connection.unsent > 0) {
    const ssize_t count =
        ::send(connection.fd, requests_.data() + (connection.rowBytes - connection.unsent),
               connection.unsent, MSG_NOSIGNAL);
    if (count < 0) {
      if (errno != EAGAIN) return ended(index);
      break;
    }
    connection.unsent -= static_cast<std::size_t>(count);
  }
  const bool wanted = connection.unsent > 0;
  if (wanted == connection.watchesSpace) return;
  connection.watchesSpace = wanted;
  watch(index, EPOLL_CTL_MOD, wanted ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void Load::handle(std::size_t index, std::uint32_t events) {
  if (connections_[index].fd < 0) return;
  if ((events & EPOLLOUT) != 0) send(index);
  if (connections_[index].fd >= 0 && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
    receive(index);
  }
}

void Load::receive(std::size_t index) {
  Connection& connection = connections_[index];
  const ssize_t count = recv(connection.fd, buffer_.data(), buffer_.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return ended(index);
  bytes_ += static_cast<std::uint64_t>(count);
  const std::string_view received(buffer_.data(), static_cast<std::size_t>(count));
  if (connection.carry.empty()) {
    digest(index, received);
  } else {
    const std::string joined = std::exchange(connection.carry, {}).append(received);
    digest(index, joined);
  }
}

void Load::digest(std::size_t index, std::string_view bytes) {
  Connection& connection = connections_[index];
  while (connection.outstanding > 0) {
    const std::optional<Answer> answer = readAnswer(bytes, options_.expect);
    if (!answer) break;
    bytes.remove_prefix(answer->length);
    --connection.outstanding;
    if (!answer->good) countError(1);
    // With one request per connection it is over when the server has closed.
    if (!options_.newConnections) --toFinish_;
  }
  if (connection.outstanding > 0) {
    connection.carry.assign(bytes);
  } else if (!bytes.empty()) {
    countError(1);  // bytes that nobody asked for
  }
  if (connection.outstanding == 0 && !options_.newConnections) begin(index);
}

// The server has closed: the end of a request where each has its own connection, else a fault.
void Load::ended(std::size_t index) {
  Connection& connection = connections_[index];
  const std::size_t lost = connection.outstanding;
  disconnect(connection);
  if (options_.newConnections) {
    --toFinish_;
    if (lost > 0) countError(1);
  } else {
    toFinish_ -= lost;
    countError(lost > 0 ? lost : 1);
  }
  begin(index);
}

void Load::countError(std::uint64_t lost) {
  errors_ += lost;
  if (errors_ > kErrorsToGiveUp) fail("more than 1000 requests failed");
}

void setLoad(std::string_view name, Options& options) {
  if (name == "keep-alive") return;
  if (name == "browser") {
    options.browserHead = true;
  } else if (name == "pipelined") {
    options.depth = 16;
  } else if (name == "connection") {
    options.newConnections = true;
  } else if (name == "idle") {
    options.idle = true;
    options.connections = 10'000;
  } else {
    fail("unknown load: " + std::string(name));
  }
}

std::uint64_t number(std::string_view name, const char* text) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (end == text || *end != '\0') fail(std::string(name) + " wants a number, not " + text);
  return value;
}

Options readOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view name = argv[i];
    if (name == "--wait") {
      options.waits = true;
      continue;
    }
    if (i + 1 == argc) fail("a value is missing after " + std::string(name));
    const char* value = argv[++i];
    if (name == "--load") {
      setLoad(value, options);
    } else if (name == "--port") {
      options.port = static_cast<std::uint16_t>(number(name, value));
    } else if (name == "--connections") {
      options.connections = number(name, value);
    } else if (name == "--requests") {
      options.requests = number(name, value);
    } else if (name == "--warmup") {
      options.warmup = number(name, value);
    } else if (name == "--path") {
      options.path = value;
    } else if (name == "--expect") {
      options.expect = value;
    } else {
      fail("unknown option: " + std::string(name));
    }
  }
  if (options.port == 0) fail("--port is missing");
  return options;
}

void raiseDescriptorLimit(std::size_t needed) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) failSystem("getrlimit");
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) failSystem("setrlimit");
  if (limit.rlim_cur < needed + 16) {
    fail("the descriptor limit of " + std::to_string(limit.rlim_cur) + " is too low");
  }
}

// Says where the load stands and goes on when bench/run has read the server's account.
void report(const Options& options, const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
  std::string answer;
  if (options.waits && !std::getline(std::cin, answer)) std::exit(1);
}

// One request on each connection. In groups, since a listener's backlog may be short.
void openIdle(Load& load, const Options& options) {
  constexpr std::size_t kGroup = 100;
  for (std::size_t first = 0; first < options.connections; first += kGroup) {
    const std::size_t count = std::min(kGroup, options.connections - first);
    load.run(count, first, count);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = readOptions(argc, argv);
  raiseDescriptorLimit(options.connections);
  const auto load = std::make_unique<Load>(options);
  if (options.warmup > 0) load->run(options.warmup, 0, options.connections);
  report(options, "ready");
  if (options.idle) {
    openIdle(*load, options);
  } else {
    load->run(options.requests, 0, options.connections);
  }
  const std::uint64_t requests = options.idle ? options.connections : options.requests;
  report(options, "done requests=" + std::to_string(requests) + " errors=" +
                      std::to_string(load->errors()) + " bytes=" + std::to_string(load->bytes()));
  return load->errors() == 0 ? 0 : 1;
}
