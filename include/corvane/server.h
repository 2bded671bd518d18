// VELServer: listens, accepts connections and keeps the set of those that live.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "corvane/configuration.h"
#include "corvane/connection.h"
#include "corvane/error.h"
#include "corvane/event_loops.h"
#include "corvane/export.h"
#include "corvane/request.h"
#include "corvane/serial_queue.h"
#include "corvane/socket.h"

namespace vel {
class ObserverList;
}

/// What an observer of a server's connections is told.
struct VELChange {
  enum class Kind { kInsertion, kRemoval };
  std::string_view key;
  Kind kind;
  /// True before the change, false after it.
  bool isPrior;
  const std::shared_ptr<VELConnection>& connection;
};

/// Ends an observation when it goes away.
class CORVANE_EXPORT VELObservation {
 public:
  VELObservation() = default;
  explicit VELObservation(std::shared_ptr<void> registration)
      : registration_(std::move(registration)) {}

 private:
  std::shared_ptr<void> registration_;
};

/// What a server tells its host about one finished request.
struct VELRequestSummary {
  /// None when the head could not be read.
  std::shared_ptr<VELRequest> request;
  /// The request line's parts as received; empty when there was none.
  std::string_view method;
  std::string_view target;
  std::string_view version;
  const VELSocketAddress& peerAddress;
  /// 0 when there was no answer: the peer went away, or the route threw.
  uint64_t status;
  /// Shape:   bytes of the answer handed to the socket: all of them, and those of the body.
  uint64_t bytesSent;
  uint64_t bodyBytesSent;
  /// From the first line of the head to the end of the answer.
  std::chrono::nanoseconds duration;
};

/// An HTTP server.
///
/// ```cpp
/// auto server = std::make_shared<VELServer>(std::make_shared<VELConfiguration>());
/// server->setInterface("localhost");
/// VELError error;
/// bool listening = server->start(&error);
/// server->kill();
/// ```
/// Owner:   always a `shared_ptr`; keep it for as long as it serves. When it goes away its
///          connections are closed.
/// Queue:   every operation may be called on any thread.
class CORVANE_EXPORT VELServer : public VELSocketDelegate,
                                 public std::enable_shared_from_this<VELServer> {
 public:
  /// Default: a new configuration; the shared loops.
  explicit VELServer(std::shared_ptr<VELConfiguration> configuration = nullptr,
                     std::shared_ptr<VELEventLoops> loops = nullptr);
  VELServer(const VELServer&) = delete;
  VELServer& operator=(const VELServer&) = delete;
  ~VELServer() override;

  /// Listens on `interface` and `port`. Returns true at once when the server is running already.
  /// Errors:  false, with `error` set; the server stays as it was.
  bool start(VELError* error = nullptr);
  /// Stops listening; live connections go on when `keepConnections`, else they are closed.
  void stop(bool keepConnections);
  /// Stops listening only.
  void stop() { stop(true); }
  /// Stops listening and closes every connection.
  void kill() { stop(false); }
  /// Stops listening, closes idle connections, lets the others finish the present request, and
  /// closes what is left at once after `deadline`. A `start` before that ends it: nothing is closed.
  /// `completion` is called once, on the server's queue and never inside this call, when every
  /// connection has closed, killed ones included, or a `start` ended it. The server lives until then.
  void drain(std::chrono::milliseconds deadline, std::function<void()> completion = nullptr);

  /// Never none. A new one holds for connections accepted afterwards.
  /// Errors:  setting none raises an invalid-argument exception.
  std::shared_ptr<VELConfiguration> configuration() const;
  void setConfiguration(std::shared_ptr<VELConfiguration> configuration);
  /// Shape:   as `VELSocket::acceptOnInterface` takes it; none: every interface. Read by `start`.
  std::optional<std::string> interface() const;
  void setInterface(std::optional<std::string> interface);
  /// 0 lets the system choose. Read by `start`.
  uint16_t port() const { return port_; }
  void setPort(uint16_t port) { port_ = port; }
  /// The port that the last successful `start` bound; 0 before it.
  uint16_t listeningPort() const { return listening_port_; }
  /// The address that the last successful `start` bound.
  VELSocketAddress listeningAddress() const;
  bool isRunning() const { return running_; }

  /// A snapshot of the live connections and sessions.
  std::vector<std::shared_ptr<VELConnection>> connections() const;
  size_t numberOfConnections() const;
  /// Always "HTTP/1.1".
  std::string_view HTTPVersion() const;

  /// Observes "connections" or "numberOfConnections": `callback` is told before and after each
  /// single addition and removal, on the thread that makes it. `kill` empties the set without a
  /// word; each closed connection's removal is told afterwards.
  /// Owner:   the observation ends with the result, or with the server.
  /// Errors:  raises an unknown-key exception for any other key.
  [[nodiscard]] VELObservation observe(const std::string& key,
                                       std::function<void(const VELChange&)> callback);

  /// `handler` is told of every answer, those without a route included, and of complete requests whose
  /// connection ended before their answer did. Connections dropped while they still sent their request
  /// are not told.
  /// Queue:   the connection's.
  void setRequestFinishedHandler(std::function<void(const VELRequestSummary&)> handler);

  /// Registers a session that took over a connection's socket.
  void addConnection(const std::shared_ptr<VELConnection>& connection);
  void removeConnection(const std::shared_ptr<VELConnection>& connection);
  /// Called by a connection or session that has ended.
  void connectionDidClose(const std::shared_ptr<VELConnection>& connection);

  void socketDidAcceptNewSocket(VELSocket& socket, std::shared_ptr<VELSocket> newSocket) override;

  /// For the library's own use.
  const std::shared_ptr<VELEventLoops>& loops() const { return loops_; }
  /// Whether the connection was told to close with all others, and has not closed yet.
  bool isClosing(const std::shared_ptr<VELConnection>& connection) const;
  bool hasRequestFinishedHandler() const {
    return has_request_finished_handler_.load(std::memory_order_relaxed);
  }
  std::shared_ptr<const std::function<void(const VELRequestSummary&)>> requestFinishedHandler()
      const;

 private:
  struct Drain;

  void runOnQueue(const std::function<void()>& work);
  bool startOnQueue(VELError* error);
  void stopOnQueue();
  void closeConnections();
  void closeConnectionsAtOnce();
  bool areAllConnectionsClosed() const;
  void endDrainIfEmpty();
  void endDrain();

  const std::shared_ptr<VELEventLoops> loops_;
  // Tagged with the server, as key and as value.
  const std::shared_ptr<VELSerialQueue> queue_;
  const std::shared_ptr<vel::ObserverList> observers_;

  std::atomic<bool> running_{false};
  std::atomic<bool> draining_{false};
  std::atomic<bool> has_request_finished_handler_{false};
  std::atomic<uint16_t> port_{0};
  std::atomic<uint16_t> listening_port_{0};

  // Owned by the queue. The socket is made by the first start, and listens again after a stop.
  std::shared_ptr<VELSocket> socket_;
  std::shared_ptr<Drain> drain_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<VELConfiguration> configuration_;
  std::optional<std::string> interface_;
  VELSocketAddress listening_address_;
  std::shared_ptr<const std::function<void(const VELRequestSummary&)>> request_finished_handler_;

  mutable std::mutex connections_mutex_;
  // Guarded by connections_mutex_, which is held around operations of the set only.
  std::unordered_set<std::shared_ptr<VELConnection>> connections_;
  // Killed, and not closed yet.
  std::unordered_set<std::shared_ptr<VELConnection>> closing_;
};
