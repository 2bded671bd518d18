// The WebSocket route of --echo.
#pragma once

#include <memory>
#include <string_view>

#include "corvane/web_socket_route.h"

/// Sends each message back.
class EchoRoute : public VELWebSocketRoute {
 public:
  explicit EchoRoute(std::string_view path);

 private:
  class Echo;

  // Of the route and of its sessions.
  const std::shared_ptr<Echo> echo_;
};
