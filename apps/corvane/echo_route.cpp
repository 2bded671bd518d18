#include "echo_route.h"

#include <cstddef>
#include <cstdint>

#include "corvane/socket.h"

namespace {

// What one client may leave unread of its own words.
constexpr size_t kMostUnsent = size_t{64} << 20;
constexpr int64_t kPolicyViolation = 1008;  // RFC 6455 §7.4.1

}  // namespace

class EchoRoute::Echo : public VELWebSocketRouteDelegate,
                        public VELWebSocketDelegate,
                        public std::enable_shared_from_this<Echo> {
 public:
  void webSocketRouteDidAcceptNewWebSocket(VELWebSocketRoute& /*webSocketRoute*/,
                                           std::shared_ptr<VELWebSocket> webSocket) override {
    webSocket->setDelegate(weak_from_this());
  }

  void webSocketDidReceiveMessage(VELWebSocket& webSocket,
                                  const VELWebSocketMessage& message) override {
    const auto socket = webSocket.socket();
    if (socket && socket->unsentLength() > kMostUnsent) {
      webSocket.closeWithCode(kPolicyViolation, "Too much is left unread");
      return;
    }
    webSocket.sendMessage(message);
  }
};

EchoRoute::EchoRoute(std::string_view path)
    : VELWebSocketRoute(path, false), echo_(std::make_shared<Echo>()) {
  setDelegate(echo_);
}
