#include "websocket/session_wire.h"

#include <utility>

#include "platform/memory_socket.h"
#include "websocket/plain_frame.h"

namespace vel::test {

void SessionEvents::webSocketDidReceiveMessage(VELWebSocket& webSocket,
                                               const VELWebSocketMessage& message) {
  keep(webSocket, (message.isText() ? "text " : "binary ") + std::string(message.text()));
  if (reaction) reaction(webSocket, message);
}

void SessionEvents::webSocketDidCloseWithError(VELWebSocket& webSocket, const VELError& error) {
  const std::string domain = error.domain().substr(0, error.domain().find("ErrorDomain"));
  std::string line = "closed " + domain + " " + std::to_string(error.code());
  if (domain == "VELWebSocket" && !error.localizedDescription().empty()) {
    line += " " + error.localizedDescription();
  }
  keep(webSocket, std::move(line));
  has_ended_ = true;
}

void SessionEvents::keep(VELWebSocket& webSocket, std::string line) {
  const bool is_placed = webSocket.delegateQueue()->isCurrent() && !has_ended_;
  lines.push_back(is_placed ? std::move(line) : "misplaced " + line);
}

SessionWire::SessionWire(bool isServer, size_t capacity) {
  auto [near, far] = MemoryEnd::makePipe(capacity);
  auto queue = std::make_shared<VELSerialQueue>("accepting", loops_->loops());
  auto socket = std::make_shared<MemorySocket>(std::move(near), queue);
  session_ = VELWebSocket::webSocketWithSocket(std::move(socket), std::nullopt, nullptr, isServer);
  session_->setDelegate(events_);
  session_->start();
  peer_ = std::make_unique<MemoryWire>(std::move(far), loops_);
  loops_->run();
}

// Nothing may be left in the loop's line, which would keep all of it.
SessionWire::~SessionWire() {
  session_.reset();
  peer_.reset();
  loops_->run();
}

std::string SessionWire::sentBytes() {
  loops_->run();
  std::string bytes;
  peer_->take(bytes);
  return bytes;
}

std::vector<std::string> SessionWire::sent() { return framesIn(sentBytes()); }

bool SessionWire::isClosed() {
  loops_->run();
  std::string rest;
  return !peer_->take(rest);
}

}  // namespace vel::test
