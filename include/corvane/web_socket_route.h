// VELWebSocketRoute: turns upgrade requests into WebSocket sessions.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "corvane/export.h"
#include "corvane/request.h"
#include "corvane/route.h"
#include "corvane/web_socket.h"

class VELWebSocketRoute;

/// Receives the sessions of a route.
/// Queue:   each connection's own, several at once.
class CORVANE_EXPORT VELWebSocketRouteDelegate {
 public:
  virtual ~VELWebSocketRouteDelegate();

  /// Chooses one of the subprotocols that the client offers; it is not asked when there are none. It is
  /// also the place to look at the request: what it throws ends the connection before the upgrade.
  /// Shape:   an answer that was not offered, letter for letter, counts as none; none stands for the first
  ///          that was offered.
  /// Default: none.
  virtual std::optional<std::string> webSocketRouteProtocolToEnforceForRequest(
      VELWebSocketRoute& webSocketRoute, const VELRequest& request,
      const std::vector<std::string>& supportedProtocols);
  /// Takes a session that has not begun to read: the place to set its delegate. The answer to the client
  /// is on its way.
  /// Errors:  what it throws closes the session.
  virtual void webSocketRouteDidAcceptNewWebSocket(VELWebSocketRoute& webSocketRoute,
                                                   std::shared_ptr<VELWebSocket> webSocket) = 0;
};

/// Answers the opening handshake (RFC 6455 §4.2) and hands the session that follows to its delegate.
///
/// ```cpp
/// struct Listener : VELWebSocketRouteDelegate {
///   void webSocketRouteDidAcceptNewWebSocket(VELWebSocketRoute&,
///                                            std::shared_ptr<VELWebSocket> webSocket) override {
///     webSocket->sendMessage("Welcome");
///   }
/// };
/// ```
/// | request                                              | answer                     |
/// |------------------------------------------------------|----------------------------|
/// | a method other than HEAD and GET                     | 405                        |
/// | no upgrade to WebSocket (`VELWebSocket`'s            | 404                        |
/// | `isWebSocketRequest`)                                |                            |
/// | an "Origin" that is not among `allowedOrigins`       | 403                        |
/// | any other, whatever its version and its key          | 101, and the session       |
///
/// HEAD is upgraded as GET is. The answer has none but the fields of the handshake: what middlewares do to
/// it does not reach the client, while an answer of theirs in the route's place does.
/// Owner:   shared by the configuration and all connections; holds its delegate weakly. The server holds
///          the sessions, which its `kill` closes and its plain `stop` leaves alone.
/// Queue:   accessors: any.
class CORVANE_EXPORT VELWebSocketRoute : public VELRoute {
 public:
  using VELRoute::VELRoute;
  ~VELWebSocketRoute() override;

  /// Calls `responseHandler` before it returns.
  void evaluateWithRequest(std::shared_ptr<VELRequest> request,
                           VELResponseHandler responseHandler) override;

  /// Default: none; sessions then drop what they receive.
  std::shared_ptr<VELWebSocketRouteDelegate> delegate() const;
  void setDelegate(std::weak_ptr<VELWebSocketRouteDelegate> delegate);
  /// The origins whose pages may open sessions ("https://example.com"): browsers send cookies along from
  /// any page. A client that tells no origin is no browser, and passes.
  /// Default: none: every origin.
  std::optional<std::vector<std::string>> allowedOrigins() const;
  void setAllowedOrigins(std::optional<std::vector<std::string>> allowedOrigins);

 private:
  bool admitsOrigin(const VELRequest& request) const;
  std::optional<std::string> chooseProtocol(const VELRequest& request);
  void accept(const std::shared_ptr<VELSocket>& socket, const VELRequest& request,
              const VELResponseHandler& responseHandler);

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::weak_ptr<VELWebSocketRouteDelegate> delegate_;
  std::optional<std::vector<std::string>> allowed_origins_;
};
