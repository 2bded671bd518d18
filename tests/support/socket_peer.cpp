#include "support/socket_peer.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>
#include <vector>

namespace vel::test {
namespace {

struct Address {
  sockaddr_storage storage{};
  socklen_t length = 0;
  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

Address addressOf(const std::string& host, uint16_t port) {
  Address address;
  auto* six = reinterpret_cast<sockaddr_in6*>(&address.storage);
  auto* four = reinterpret_cast<sockaddr_in*>(&address.storage);
  if (inet_pton(AF_INET6, host.c_str(), &six->sin6_addr) == 1) {
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(port);
    address.length = sizeof *six;
  } else {
    inet_pton(AF_INET, host.c_str(), &four->sin_addr);
    four->sin_family = AF_INET;
    four->sin_port = htons(port);
    address.length = sizeof *four;
  }
  return address;
}

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void waitFor(int fd, short events) {
  pollfd entry{fd, events, 0};
  if (poll(&entry, 1, 60'000) == 1) return;
  errno = ETIMEDOUT;
  fail("waiting for a peer");
}

int made(int family) {
  const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail("socket");
  return fd;
}

}  // namespace

SocketPeer SocketPeer::connectedTo(uint16_t port, const std::string& host) {
  SocketPeer peer(made(host.find(':') == std::string::npos ? AF_INET : AF_INET6));
  peer.connect(port, host);
  return peer;
}

SocketPeer SocketPeer::slowReaderAt(uint16_t port, int bytes) {
  SocketPeer peer(made(AF_INET));
  setsockopt(peer.fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  peer.connect(port);
  return peer;
}

SocketPeer SocketPeer::unconnected() { return SocketPeer(made(AF_INET)); }

SocketPeer::~SocketPeer() { close(); }

void SocketPeer::connect(uint16_t port, const std::string& host) {
  Address address = addressOf(host, port);
  if (::connect(fd_, address.get(), address.length) != 0) fail("connect");
}

void SocketPeer::send(std::string_view bytes) {
  while (!bytes.empty()) {
    waitFor(fd_, POLLOUT);
    bytes.remove_prefix(sendSome(bytes));
  }
}

size_t SocketPeer::sendSome(std::string_view bytes) {
  const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0 && errno != EAGAIN) fail("send");
  return sent < 0 ? 0 : static_cast<size_t>(sent);
}

std::string SocketPeer::receive(size_t length) {
  std::string received;
  std::vector<char> buffer(64 * 1024);
  while (received.size() < length) {
    waitFor(fd_, POLLIN);
    const size_t wanted = std::min(buffer.size(), length - received.size());
    const ssize_t got = recv(fd_, buffer.data(), wanted, 0);
    was_reset_ = got < 0 && errno == ECONNRESET;
    if (got < 0 && !was_reset_) fail("recv");
    if (got <= 0) break;
    received.append(buffer.data(), static_cast<size_t>(got));
  }
  return received;
}

void SocketPeer::finish() { shutdown(fd_, SHUT_WR); }

void SocketPeer::close() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

void SocketPeer::reset() {
  const linger none{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
  close();
}

uint16_t SocketPeer::localPort() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

PeerListener::PeerListener(int backlog) : fd_(made(AF_INET)), port_(0) {
  Address address = addressOf("127.0.0.1", 0);
  if (bind(fd_, address.get(), address.length) != 0 || listen(fd_, backlog) != 0) fail("listen");
  sockaddr_in bound{};
  socklen_t length = sizeof bound;
  getsockname(fd_, reinterpret_cast<sockaddr*>(&bound), &length);
  port_ = ntohs(bound.sin_port);
}

PeerListener::~PeerListener() { ::close(fd_); }

SocketPeer PeerListener::accept() {
  waitFor(fd_, POLLIN);
  const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) fail("accept");
  return SocketPeer(fd);
}

size_t openDescriptorCount() {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc/self/fd"), &closedir);
  size_t count = 0;
  while (readdir(directory.get()) != nullptr) ++count;
  return count;
}

}  // namespace vel::test
