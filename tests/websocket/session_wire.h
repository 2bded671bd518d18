// SessionWire: a session over a pipe within the process, on a loop that the test drives; SessionEvents: its
// delegate.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/web_socket.h"
#include "platform/memory_pipe.h"
#include "support/manual_loops.h"
#include "support/memory_wire.h"

namespace vel::test {

/// Keeps what it is told as lines: "text ...", "binary ...", "closed DOMAIN CODE REASON" (the domain without
/// "ErrorDomain"; reasons only of sessions).
/// Errors:  what comes off the queue or after the end is kept as "misplaced".
class SessionEvents : public VELWebSocketDelegate {
 public:
  /// Called for each message, after it was kept.
  std::function<void(VELWebSocket& webSocket, const VELWebSocketMessage& message)> reaction;
  std::vector<std::string> lines;

  void webSocketDidReceiveMessage(VELWebSocket& webSocket,
                                  const VELWebSocketMessage& message) override;
  void webSocketDidCloseWithError(VELWebSocket& webSocket, const VELError& error) override;

 private:
  void keep(VELWebSocket& webSocket, std::string line);
  bool has_ended_ = false;
};

class SessionWire {
 public:
  explicit SessionWire(bool isServer = true, size_t capacity = MemoryEnd::kCapacity);
  ~SessionWire();

  VELWebSocket& session() { return *session_; }
  SessionEvents& events() { return *events_; }
  ManualLoops& loops() { return *loops_; }
  MemoryWire& peer() { return *peer_; }
  /// Lets go of the session; its socket and queue are its own.
  void drop() { session_.reset(); }

  /// Has `bytes` come, and what they cause happen.
  void send(std::string_view bytes) { peer_->send(bytes); }
  /// What the session has sent since, as `framesIn` shows it.
  std::vector<std::string> sent();
  /// The same as bytes.
  std::string sentBytes();
  /// Whether the session's end of the pipe is closed.
  bool isClosed();

 private:
  const std::shared_ptr<ManualLoops> loops_ = std::make_shared<ManualLoops>();
  const std::shared_ptr<SessionEvents> events_ = std::make_shared<SessionEvents>();
  std::shared_ptr<VELWebSocket> session_;
  std::unique_ptr<MemoryWire> peer_;
};

}  // namespace vel::test
