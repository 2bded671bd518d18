// The texts of the opening handshake at both ends (RFC 6455 §4): pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/http_message.h"
#include "corvane/url_request.h"

namespace vel {

/// The value of "Sec-WebSocket-Accept" for that of "Sec-WebSocket-Key", which is taken as it stands.
std::string acceptValueForKey(std::string_view key);

/// The subprotocols in a value of "Sec-WebSocket-Protocol", in order.
std::vector<std::string> offeredProtocols(std::string_view list);

/// What a client sends to `host`: the fields of `request`, and over them those of the handshake. "Host"
/// is without a port; an IPv6 address stands in brackets (RFC 9110 §7.2).
VELHTTPMessage upgradeRequest(const VELURLRequest& request, const std::string& host);

/// What a server answered.
struct UpgradeAnswer {
  /// Whether there is a session now: for the status codes 101 and 200.
  bool isAccepted = false;
  /// The field "Sec-WebSocket-Protocol".
  std::optional<std::string> protocol;
};

/// Reads the head of an answer, its empty line included; a malformed one accepts nothing.
/// Meant so: the status alone decides. What the server calls its key, its upgrade and the subprotocol is
/// not compared with what was asked for.
UpgradeAnswer parseUpgradeAnswer(std::string_view head);

}  // namespace vel
