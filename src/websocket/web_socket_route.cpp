// The server's side of the opening handshake: the check, the answer, and the hand-over of the socket.
#include "corvane/web_socket_route.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "corvane/http_connection.h"
#include "corvane/http_message.h"
#include "corvane/responses.h"
#include "corvane/server.h"
#include "platform/ascii.h"
#include "websocket/opening_handshake.h"

namespace {

constexpr std::chrono::milliseconds kAnswerTimeout{30'000};
constexpr int64_t kAnswerTag = 10;

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  const auto same = [](char a, char b) { return vel::toLower(a) == vel::toLower(b); };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

// The key may be missing, and the version may be any: the client finds out by itself.
VELHTTPMessage switchingAnswer(const VELRequest& request, std::string_view version,
                               const std::optional<std::string>& protocol) {
  VELHTTPMessage answer = VELHTTPMessage::response(101, "Switching Protocols", version);
  for (const char* field : {"Upgrade", "Connection"}) {
    answer.setValueForHeaderField(request.valueForHeader(field).value_or(""), field);
  }
  const std::string key = request.valueForHeader("Sec-WebSocket-Key").value_or("");
  answer.setValueForHeaderField(vel::acceptValueForKey(key), "Sec-WebSocket-Accept");
  if (protocol) answer.setValueForHeaderField(*protocol, "Sec-WebSocket-Protocol");
  return answer;
}

}  // namespace

VELWebSocketRouteDelegate::~VELWebSocketRouteDelegate() = default;

std::optional<std::string> VELWebSocketRouteDelegate::webSocketRouteProtocolToEnforceForRequest(
    VELWebSocketRoute& /*webSocketRoute*/, const VELRequest& /*request*/,
    const std::vector<std::string>& /*supportedProtocols*/) {
  return std::nullopt;
}

bool VELWebSocket::isWebSocketRequest(const VELRequest& request) {
  const std::string upgrade = request.valueForHeader("Upgrade").value_or("");
  const std::string connection = request.valueForHeader("Connection").value_or("");
  return vel::equalsIgnoringCase(upgrade, "WebSocket") &&
         containsIgnoringCase(connection, "Upgrade");
}

VELWebSocketRoute::~VELWebSocketRoute() = default;

void VELWebSocketRoute::evaluateWithRequest(std::shared_ptr<VELRequest> request,
                                            VELResponseHandler responseHandler) {
  const std::string method = request->method();
  if (method != "HEAD" && method != "GET") {
    return responseHandler(std::make_shared<VELMethodNotSupportedResponse>());
  }
  // A connection that has ended meanwhile has no socket any more.
  const auto connection = std::dynamic_pointer_cast<VELHTTPConnection>(request->connection());
  const std::shared_ptr<VELSocket> socket = connection ? connection->socket() : nullptr;
  if (!VELWebSocket::isWebSocketRequest(*request) || !socket) {
    return responseHandler(std::make_shared<VELNotFoundResponse>());
  }
  if (!admitsOrigin(*request)) return responseHandler(std::make_shared<VELForbiddenResponse>());
  accept(socket, *request, responseHandler);
}

void VELWebSocketRoute::accept(const std::shared_ptr<VELSocket>& socket, const VELRequest& request,
                               const VELResponseHandler& responseHandler) {
  const std::shared_ptr<VELConnection> connection = request.connection();
  const std::shared_ptr<VELServer> server = connection->server();
  const std::optional<std::string> protocol = chooseProtocol(request);
  const std::string_view version = server ? server->HTTPVersion() : VELHTTPVersion1_1;
  socket->writeData(switchingAnswer(request, version, protocol).messageData(), kAnswerTimeout,
                    kAnswerTag);
  const auto webSocket = VELWebSocket::webSocketWithSocket(socket, protocol, nullptr, true);
  if (server) {
    webSocket->setServer(server);
    server->addConnection(webSocket);
  }
  try {
    const auto receiver = delegate();
    if (receiver) receiver->webSocketRouteDidAcceptNewWebSocket(*this, webSocket);
  } catch (...) {
    webSocket->closeAtOnce();
    responseHandler(std::make_shared<VELSocketYieldResponse>());
    throw;
  }
  webSocket->start();
  // Whoever closed the connection a moment ago means the session as well.
  if (!server || server->isClosing(connection)) webSocket->close();
  responseHandler(std::make_shared<VELSocketYieldResponse>());
}

std::optional<std::string> VELWebSocketRoute::chooseProtocol(const VELRequest& request) {
  const std::vector<std::string> offered =
      vel::offeredProtocols(request.valueForHeader("Sec-WebSocket-Protocol").value_or(""));
  if (offered.empty()) return std::nullopt;
  std::optional<std::string> choice;
  if (const auto chooser = delegate()) {
    choice = chooser->webSocketRouteProtocolToEnforceForRequest(*this, request, offered);
  }
  const bool wasOffered =
      choice && std::find(offered.begin(), offered.end(), *choice) != offered.end();
  return wasOffered ? choice : offered.front();
}

bool VELWebSocketRoute::admitsOrigin(const VELRequest& request) const {
  const std::optional<std::string> origin = request.valueForHeader("Origin");
  const std::lock_guard lock(mutex_);
  if (!origin || !allowed_origins_) return true;
  return std::find(allowed_origins_->begin(), allowed_origins_->end(), *origin) !=
         allowed_origins_->end();
}

std::shared_ptr<VELWebSocketRouteDelegate> VELWebSocketRoute::delegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void VELWebSocketRoute::setDelegate(std::weak_ptr<VELWebSocketRouteDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_.swap(delegate);
}

std::optional<std::vector<std::string>> VELWebSocketRoute::allowedOrigins() const {
  const std::lock_guard lock(mutex_);
  return allowed_origins_;
}

void VELWebSocketRoute::setAllowedOrigins(std::optional<std::vector<std::string>> allowedOrigins) {
  const std::lock_guard lock(mutex_);
  allowed_origins_.swap(allowedOrigins);
}
