// The other end of a connection under test: plain blocking sockets of the system, none of our own code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace vel::test {

/// A connected descriptor. Everything gives up after a minute by throwing.
class SocketPeer {
 public:
  /// Connects to a numeric address, IPv4 or IPv6.
  static SocketPeer connectedTo(uint16_t port, const std::string& host = "127.0.0.1");
  /// The same with a receive buffer of about `bytes`.
  static SocketPeer slowReaderAt(uint16_t port, int bytes);
  /// A descriptor that connects later.
  static SocketPeer unconnected();
  explicit SocketPeer(int fd) : fd_(fd) {}
  SocketPeer(SocketPeer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  SocketPeer& operator=(SocketPeer&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~SocketPeer();

  void connect(uint16_t port, const std::string& host = "127.0.0.1");
  /// Sends all of `bytes`.
  void send(std::string_view bytes);
  /// Sends what goes without waiting; returns how much that was.
  size_t sendSome(std::string_view bytes);
  /// Receives exactly `length` bytes; fewer when the connection ends before.
  std::string receive(size_t length);
  /// Receives until the connection ends.
  std::string receiveAll() { return receive(std::string::npos); }
  /// Whether the end that `receive` came to was a reset.
  bool wasReset() const { return was_reset_; }
  /// Sends no more.
  void finish();
  void close();
  /// Closes so that the other end sees a reset.
  void reset();

  uint16_t localPort() const;
  int descriptor() const { return fd_; }

 private:
  int fd_;
  bool was_reset_ = false;
};

/// A listening descriptor on 127.0.0.1.
class PeerListener {
 public:
  explicit PeerListener(int backlog = 16);
  PeerListener(const PeerListener&) = delete;
  PeerListener& operator=(const PeerListener&) = delete;
  ~PeerListener();

  uint16_t port() const { return port_; }
  SocketPeer accept();

 private:
  int fd_;
  uint16_t port_;
};

/// Descriptors that this process has open.
size_t openDescriptorCount();

}  // namespace vel::test
