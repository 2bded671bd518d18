// SocketEvents: a socket's delegate that keeps what it is told; ServedSocket: one accepted connection with
// its peer.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/socket.h"
#include "support/socket_peer.h"

namespace vel::test {

/// Keeps every event as a line of text: "accepted", "connected NAME", "read TAG BYTES", "wrote TAG",
/// "secured", "ended", "ended DOMAIN CODE" (the domain without "ErrorDomain").
/// Errors:  an event off the delegate queue, or after the end, is kept as "misplaced".
class SocketEvents : public VELSocketDelegate {
 public:
  /// Called with each event, on the queue, after it was kept.
  std::function<void(VELSocket& socket, const std::string& event)> reaction;

  std::vector<std::string> all() const;
  /// Those that begin with `start`.
  std::vector<std::string> those(std::string_view start) const;
  /// Waits for the `count`-th event that begins with `start`; an empty text when it does not come.
  std::string await(std::string_view start, size_t count = 1) const;
  /// The bytes of all reads, one after the other.
  std::string bytesRead() const;
  /// The socket accepted last.
  std::shared_ptr<VELSocket> accepted() const;

  void socketDidAcceptNewSocket(VELSocket& socket, std::shared_ptr<VELSocket> newSocket) override;
  void socketDidConnectToHost(VELSocket& socket, const std::string& host, uint16_t port) override;
  void socketDidReadData(VELSocket& socket, const VELData& data, int64_t tag) override;
  void socketDidWriteDataWithTag(VELSocket& socket, int64_t tag) override;
  void socketDidSecure(VELSocket& socket) override;
  void socketDidDisconnect(VELSocket& socket, const std::optional<VELError>& error) override;

 private:
  void keep(VELSocket& socket, std::string event);

  mutable std::mutex mutex_;
  mutable std::condition_variable condition_;
  // Guarded by mutex_.
  std::vector<std::string> events_;
  std::string bytes_read_;
  std::shared_ptr<VELSocket> accepted_;
  bool has_ended_ = false;
};

/// A listening socket on 127.0.0.1.
struct ListeningSocket {
  explicit ListeningSocket(const std::shared_ptr<VELEventLoops>& loops = nullptr);
  ~ListeningSocket() { socket->disconnect(); }
  uint16_t port() const { return socket->localPort(); }
  /// The `count`-th accepted socket.
  std::shared_ptr<VELSocket> accepted(size_t count = 1) const;

  std::shared_ptr<VELSerialQueue> queue;
  std::shared_ptr<SocketEvents> events = std::make_shared<SocketEvents>();
  std::shared_ptr<VELSocket> socket;
};

/// A connection that was accepted and handed to a queue of its own.
/// Queue:   operations on `socket` from the test's thread are posted, in order.
struct ServedSocket {
  explicit ServedSocket(const std::shared_ptr<VELEventLoops>& loops = nullptr,
                        int peer_receive_buffer = 0);
  ~ServedSocket();
  /// Does `work` on the queue and waits for it.
  void onQueue(const std::function<void()>& work) { queue->sync(work); }

  std::shared_ptr<VELSerialQueue> queue;
  std::shared_ptr<SocketEvents> events = std::make_shared<SocketEvents>();
  std::shared_ptr<VELSocket> socket;
  SocketPeer peer;
};

/// Pushes the clock by `time` and has the loop of `queue` notice.
void passTime(VELSerialQueue& queue, std::chrono::milliseconds time);

inline constexpr std::chrono::milliseconds kNoTimeout{-1};

}  // namespace vel::test
