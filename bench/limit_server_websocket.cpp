// The limit of the WebSocket loads: all frames of one receive are unmasked in place and go back by
// one send. It takes every frame for a whole message and knows no pings and no closing handshake.
// With `--mode broadcast` what one session sends goes to all.
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "limit_support.h"

namespace bench {
namespace {

constexpr std::string_view kKeyName = "Sec-WebSocket-Key: ";
constexpr std::string_view kGUID = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

struct Frame {
  unsigned char* payload = nullptr;
  std::uint64_t size = 0;
  std::size_t length = 0;  // with its head
};

// The masked frame at the beginning of the bytes; its length is 0 while it is not complete.
Frame readFrame(unsigned char* bytes, std::size_t count) {
  if (count < 2) return {};
  std::uint64_t size = bytes[1] & 0x7F;
  const std::size_t more = size < 126 ? 0 : size == 126 ? 2 : 8;
  const std::size_t head = 2 + more + 4;
  if (count < head) return {};
  if (more > 0) size = 0;
  for (std::size_t i = 0; i < more; ++i) size = size << 8 | bytes[2 + i];
  if (count - head < size) return {};
  return {bytes + head, size, head + static_cast<std::size_t>(size)};
}

// As wide as every processor of the architecture has it.
using Vector = std::uint32_t __attribute__((vector_size(16)));

// Moves as many whole words of the payload as there are.
template <typename Word>
void unmaskWords(const unsigned char*& from, unsigned char*& to, std::size_t& left, Word key) {
  for (; left >= sizeof key; left -= sizeof key) {
    Word word;
    std::memcpy(&word, from, sizeof word);
    word ^= key;
    std::memcpy(to, &word, sizeof word);
    from += sizeof word;
    to += sizeof word;
  }
}

// Moves the payload to `to`, a place before it.
void unmask(const Frame& frame, unsigned char* to) {
  std::uint32_t key = 0;
  std::memcpy(&key, frame.payload - sizeof key, sizeof key);
  const unsigned char* from = frame.payload;
  auto left = static_cast<std::size_t>(frame.size);
  unmaskWords(from, to, left, Vector{key, key, key, key});
  unmaskWords(from, to, left, key);
  std::array<unsigned char, sizeof key> keys{};
  std::memcpy(keys.data(), &key, sizeof key);
  for (std::size_t i = 0; i < left; ++i) to[i] = from[i] ^ keys[i];
}

// RFC 6455 §4.2.2. Empty: the head has no key.
std::string upgradeAnswer(std::string_view head) {
  const std::size_t name = head.find(kKeyName);
  if (name == std::string_view::npos) return {};
  const std::size_t begin = name + kKeyName.size();
  std::string text(head.substr(begin, head.find("\r\n", begin) - begin));
  text += kGUID;
  std::array<unsigned char, SHA_DIGEST_LENGTH> digest{};
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
  std::array<unsigned char, 32> accept{};
  const int length = EVP_EncodeBlock(accept.data(), digest.data(), SHA_DIGEST_LENGTH);
  return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Accept: " +
         std::string(accept.data(), accept.data() + length) + "\r\n\r\n";
}

class Server {
 public:
  Server(int listener, bool broadcasts)
      : listener_(listener), epoll_(makeEpoll(listener)), broadcasts_(broadcasts) {}
  void run() { runLoop(epoll_, listener_, *this); }
  void acceptAll() {
    acceptInto(connections_, epoll_, listener_, kReadEvents, [](int) { return Connection{}; });
  }
  void handle(int fd, std::uint32_t events);

 private:
  struct Connection {
    bool isUpgraded = false;
    std::unique_ptr<std::string> carry;  // the beginning of a head or frame that was split
    std::unique_ptr<std::string> owed;   // what the kernel has not taken
  };

  bool receive(int fd, bool untilEnd);
  bool digest(int fd, std::size_t count);
  std::size_t upgrade(int fd, std::string_view bytes);
  std::size_t echo(unsigned char* bytes, std::size_t count, std::size_t& echoed);
  bool sendTo(int fd, std::string_view bytes);
  bool flush(int fd);

  const int listener_;
  const int epoll_;
  const bool broadcasts_;
  std::vector<Connection> connections_;  // by descriptor
  std::vector<unsigned char> buffer_ = std::vector<unsigned char>(kReceiveSize);
};

void Server::handle(int fd, std::uint32_t events) {
  const bool ended = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  bool open = true;
  if ((events & EPOLLOUT) != 0) open = flush(fd);
  if (open && ((events & EPOLLIN) != 0 || ended)) open = receive(fd, ended);
  if (open) return;
  connections_[static_cast<std::size_t>(fd)] = Connection{};
  close(fd);
}

// One receive per event, more only while it fills the buffer or the peer has ended. What was
// carried over comes first, and the buffer grows with it. False: ended.
bool Server::receive(int fd, bool untilEnd) {
  for (;;) {
    std::size_t before = 0;
    if (const auto carry = std::move(connections_[static_cast<std::size_t>(fd)].carry)) {
      before = carry->size();
      if (buffer_.size() < before + kReceiveSize) buffer_.resize(before + kReceiveSize);
      std::memcpy(buffer_.data(), carry->data(), before);
    }
    const ssize_t count = recv(fd, buffer_.data() + before, buffer_.size() - before, 0);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) return false;
    const std::size_t length = before + static_cast<std::size_t>(count < 0 ? 0 : count);
    if (!digest(fd, length)) return false;
    if (count < 0 || (length < buffer_.size() && !untilEnd)) return true;
  }
}

// Answers what is complete of the bytes in the buffer and keeps the rest.
bool Server::digest(int fd, std::size_t count) {
  Connection& connection = connections_[static_cast<std::size_t>(fd)];
  std::size_t used = 0;
  if (!connection.isUpgraded) {
    used = upgrade(fd, {reinterpret_cast<const char*>(buffer_.data()), count});
  }
  if (connection.isUpgraded) {
    std::size_t echoed = 0;
    unsigned char* const frames = buffer_.data() + used;
    used += echo(frames, count - used, echoed);
    const std::string_view bytes(reinterpret_cast<const char*>(frames), echoed);
    if (broadcasts_ && echoed > 0) {
      for (std::size_t other = 0; other < connections_.size(); ++other) {
        // One that cannot be sent to will tell so by an event.
        if (connections_[other].isUpgraded) sendTo(static_cast<int>(other), bytes);
      }
    } else if (echoed > 0 && !sendTo(fd, bytes)) {
      return false;
    }
  }
  if (used < count) {
    connection.carry = std::make_unique<std::string>(
        reinterpret_cast<const char*>(buffer_.data() + used), count - used);
  }
  return true;
}

std::size_t Server::upgrade(int fd, std::string_view bytes) {
  const std::size_t end = bytes.find("\r\n\r\n");
  if (end == std::string_view::npos) return 0;
  const std::string answer = upgradeAnswer(bytes.substr(0, end + 2));
  connections_[static_cast<std::size_t>(fd)].isUpgraded = !answer.empty();
  if (!answer.empty()) sendTo(fd, answer);
  return end + 4;
}

// Makes the frames of the bytes those of a server, one behind the other from the same place on,
// which is as far as `echoed`. The number of bytes used.
std::size_t Server::echo(unsigned char* bytes, std::size_t count, std::size_t& echoed) {
  std::size_t used = 0;
  for (;;) {
    const Frame frame = readFrame(bytes + used, count - used);
    if (frame.length == 0) return used;
    const std::size_t head = frame.length - static_cast<std::size_t>(frame.size) - 4;
    unsigned char* const to = bytes + echoed;
    std::memmove(to, bytes + used, head);
    to[1] &= 0x7F;
    unmask(frame, to + head);
    used += frame.length;
    echoed += frame.length - 4;
  }
}

bool Server::sendTo(int fd, std::string_view bytes) {
  Connection& connection = connections_[static_cast<std::size_t>(fd)];
  if (connection.owed) {
    connection.owed->append(bytes);
    return true;
  }
  const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (count < 0 && errno != EAGAIN) return false;
  const std::size_t taken = count < 0 ? 0 : static_cast<std::size_t>(count);
  if (taken == bytes.size()) return true;
  connection.owed = std::make_unique<std::string>(bytes.substr(taken));
  watch(epoll_, EPOLL_CTL_MOD, fd, kReadEvents | EPOLLOUT);
  return true;
}

bool Server::flush(int fd) {
  const auto owed = std::move(connections_[static_cast<std::size_t>(fd)].owed);
  if (!owed) return true;
  if (!sendTo(fd, *owed)) return false;
  if (!connections_[static_cast<std::size_t>(fd)].owed)
    watch(epoll_, EPOLL_CTL_MOD, fd, kReadEvents);
  return true;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv, {"--port", "--mode"});
  bench::raiseDescriptorLimit();
  const int listener = bench::listenOnLoopback(arguments.port());
  const auto server =
      std::make_unique<bench::Server>(listener, arguments.value("--mode") == "broadcast");
  bench::announce(listener, "http");
  server->run();
}
