#include "echo_route.h"

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
    webSocket.sendMessage(message);
  }
};

EchoRoute::EchoRoute(std::string_view path)
    : VELWebSocketRoute(path, false), echo_(std::make_shared<Echo>()) {
  setDelegate(echo_);
}
