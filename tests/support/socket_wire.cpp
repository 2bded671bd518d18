// Blocking socket calls; the receive and send time-outs of the socket are the tests' fail-safe.
#include "support/socket_wire.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace vel::test {
namespace {

std::system_error systemError(const char* what) {
  return std::system_error(errno, std::generic_category(), what);
}

template <typename Value>
void setOption(int descriptor, int level, int name, const Value& value) {
  if (::setsockopt(descriptor, level, name, &value, sizeof value) != 0) {
    throw systemError("setsockopt");
  }
}

int connectTo(const std::string& host, uint16_t port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* address = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &address) != 0) {
    throw std::runtime_error("no numeric address: " + host);
  }
  const int descriptor = ::socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int result = ::connect(descriptor, address->ai_addr, address->ai_addrlen);
  const std::system_error error = systemError("connect");
  ::freeaddrinfo(address);
  if (result != 0) {
    ::close(descriptor);
    throw error;
  }
  return descriptor;
}

void requireInTime() {
  if (errno == EAGAIN) {
    throw std::runtime_error("the wire stood still for too long");
  }
}

}  // namespace

SocketWire::SocketWire(const std::string& host, uint16_t port)
    : descriptor_(connectTo(host, port)) {
  timeval patience{};
  patience.tv_sec = static_cast<time_t>(kPatience.count());
  setOption(descriptor_, SOL_SOCKET, SO_RCVTIMEO, patience);
  setOption(descriptor_, SOL_SOCKET, SO_SNDTIMEO, patience);
  // Two sends must be able to arrive as two segments.
  setOption(descriptor_, IPPROTO_TCP, TCP_NODELAY, 1);
}

SocketWire::~SocketWire() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

bool SocketWire::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) {
      requireInTime();
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

bool SocketWire::receive(std::string& received) {
  std::array<char, 65536> buffer;
  const ssize_t count = ::recv(descriptor_, buffer.data(), buffer.size(), 0);
  if (count < 0) requireInTime();
  if (count <= 0) return false;
  received.append(buffer.data(), static_cast<size_t>(count));
  return true;
}

void SocketWire::finishSending() { ::shutdown(descriptor_, SHUT_WR); }

void SocketWire::reset() {
  // Closing without lingering discards what is unsent and resets (RFC 9293 §3.10.4).
  setOption(descriptor_, SOL_SOCKET, SO_LINGER, linger{1, 0});
  ::close(descriptor_);
  descriptor_ = -1;
}

uint16_t SocketWire::localPort() const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw systemError("getsockname");
  }
  // The port stands at the same place in both families.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

}  // namespace vel::test
