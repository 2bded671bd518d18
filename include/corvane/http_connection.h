// VELHTTPConnection: one accepted client that speaks HTTP/1.x.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "corvane/configuration.h"
#include "corvane/connection.h"
#include "corvane/data.h"
#include "corvane/export.h"
#include "corvane/socket.h"
#include "corvane/uuid.h"

class VELServer;

namespace vel {
class ConnectionEngine;
}

/// Reads the requests of one client, one after the other, has them answered by the routes of its
/// configuration, and sends the answers.
///
/// ```cpp
/// std::string peerOf(const VELRequest& request) {
///   auto connection = std::dynamic_pointer_cast<VELHTTPConnection>(request.connection());
///   return connection ? connection->peerAddress().host : std::string();
/// }
/// ```
/// Owner:   its server, until it has closed.
/// Queue:   every operation may be called on any thread; all the rest happens on a serial queue of
///          the connection's own, "org.corvane.Connection".
class CORVANE_EXPORT VELHTTPConnection final
    : public VELConnection,
      public std::enable_shared_from_this<VELHTTPConnection> {
 public:
  /// Raises "Connections should not be initialized directly".
  VELHTTPConnection();
  /// A connection over an accepted `socket`, which does nothing before `start`. It works on the
  /// configuration that `server` has now.
  /// Owner:   holds `socket`, and `server` weakly.
  VELHTTPConnection(std::shared_ptr<VELSocket> socket, const std::shared_ptr<VELServer>& server);
  VELHTTPConnection(const VELHTTPConnection&) = delete;
  VELHTTPConnection& operator=(const VELHTTPConnection&) = delete;
  ~VELHTTPConnection() override;

  /// Becomes the socket's delegate, secures it when there are certificates, and reads the first
  /// request. Call it once.
  void start();
  void close() override;
  void closeAtOnce() override;
  void closeWhenIdle() override;

  /// None once the socket has disconnected.
  std::shared_ptr<VELSocket> socket() const;
  std::shared_ptr<VELServer> server() const override;
  VELUUID identifier() const override;
  bool isSecure() const override;
  VELSocketAddress peerAddress() const override;

  /// The connection's own copy of the server's configuration. What is changed in it holds from the
  /// next request on.
  std::shared_ptr<VELConfiguration> configuration() const;
  /// Errors:  raises an invalid-argument exception for none.
  void setConfiguration(std::shared_ptr<VELConfiguration> configuration);

  /// The line before a chunk of `length` bytes (RFC 9112 §7.1), "1a" and CR LF for 26.
  static VELData chunkedTransferSizeLineForLength(uint64_t length);
  /// What ends a chunked body: the last chunk's CR LF, the chunk of no bytes, the empty trailer.
  static const VELData& chunkedTransferFooter();
  /// Shape:   "Sun, 06 Nov 1994 08:49:37 GMT", whatever the locale (RFC 9110 §5.6.7).
  static std::string dateAsString(std::chrono::system_clock::time_point date);

 private:
  // Everything else: an object of its own, so that hosts compile none of it.
  std::unique_ptr<vel::ConnectionEngine> engine_;
};
