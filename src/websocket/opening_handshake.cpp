#include "websocket/opening_handshake.h"

#include <algorithm>
#include <array>

#include "corvane/error.h"
#include "platform/ascii.h"
#include "platform/digest.h"
#include "platform/secure_random.h"
#include "platform/url_parts.h"

namespace vel {
namespace {

// RFC 6455 §1.3
constexpr std::string_view kHandshakeIdentifier = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

template <size_t kSize>
std::string base64Of(const std::array<uint8_t, kSize>& bytes) {
  return base64Encoded({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

std::string randomKey() {
  std::array<uint8_t, 16> nonce{};
  try {
    secureRandomBytes(nonce.data(), nonce.size());
  } catch (const VELException&) {
    throw VELException(VELInternalInconsistencyException,
                       "Unable to create randomized nonce for websocket handshake");
  }
  return base64Of(nonce);
}

}  // namespace

std::string acceptValueForKey(std::string_view key) {
  return base64Of(sha1(std::string(key).append(kHandshakeIdentifier)));
}

std::vector<std::string> offeredProtocols(std::string_view list) {
  std::vector<std::string> protocols;
  forEachListItem(list, [&protocols](std::string_view protocol) {
    if (!protocol.empty()) protocols.emplace_back(protocol);
  });
  return protocols;
}

VELHTTPMessage upgradeRequest(const VELURLRequest& request, const std::string& host) {
  VELHTTPMessage message = VELHTTPMessage::request("GET", request.URL(), VELHTTPVersion1_1);
  for (const auto& [field, value] : request.allHTTPHeaderFields()) {
    message.setValueForHeaderField(value, field);
  }
  message.setValueForHeaderField(hostInBrackets(host), "Host");
  message.setValueForHeaderField("websocket", "Upgrade");
  message.setValueForHeaderField("Upgrade", "Connection");
  message.setValueForHeaderField("13", "Sec-WebSocket-Version");
  message.setValueForHeaderField(randomKey(), "Sec-WebSocket-Key");
  return message;
}

UpgradeAnswer parseUpgradeAnswer(std::string_view head) {
  VELHTTPMessage message = VELHTTPMessage::emptyRequest();
  if (!message.appendData(head) || !message.isHeaderComplete()) return {};
  // A head whose lines end otherwise ended before: frames would be lost behind it.
  if (!message.body().isEmpty()) return {};
  if (message.statusCode() != 101 && message.statusCode() != 200) return {};
  return {true, message.valueForHeaderField("Sec-WebSocket-Protocol")};
}

}  // namespace vel
