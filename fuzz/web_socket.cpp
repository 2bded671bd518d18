// A whole WebSocket session in memory, of a server or of a client: whatever comes, in whatever pieces, it
// tells and sends what a plain reading of the frames finds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/clock.h"
#include "support/pieces.h"
#include "support/plain_session.h"
#include "support/require.h"
#include "websocket/session_wire.h"

namespace vel::fuzz {
namespace {

void converse(bool is_server, std::string_view bytes, unsigned turn) {
  test::SessionWire wire(is_server);
  wire.events().reaction = [](VELWebSocket& session, const VELWebSocketMessage& message) {
    if (message.text().starts_with("c")) {
      session.closeWithCode(4000);
    } else {
      session.sendMessage(message);
    }
  };
  if (turn == 1) {
    wire.send(bytes);
  } else {
    forEachPiece(bytes, turn, [&](std::string_view piece) { wire.send(piece); });
  }
  wire.peer().finishSending();
  const PlainSession plain = plainSession(is_server, bytes);
  require(wire.events().lines == plain.events, "the same is told");
  require(wire.sent() == plain.sent, "the same is sent");
}

}  // namespace
}  // namespace vel::fuzz

// The first byte is odd for a session of a client.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool is_stopped = (vel::stopClock(), true);
  (void)is_stopped;
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  for (const unsigned turn : {0U, 1U, 2U}) vel::fuzz::converse(data[0] % 2 == 0, bytes, turn);
  return 0;
}
