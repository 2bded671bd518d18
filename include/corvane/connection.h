// VELConnection: what HTTP connections and WebSocket sessions have in common.
#pragma once

#include <memory>
#include <string>

#include "corvane/export.h"
#include "corvane/socket.h"
#include "corvane/uuid.h"

class VELServer;

/// A live connection of a server.
/// Owner:   the server holds it until it has closed.
/// Queue:   every operation may be called on any thread.
class CORVANE_EXPORT VELConnection {
 public:
  virtual ~VELConnection() = default;
  /// Closes once what was written has been sent; returns at once. Only posts: the server calls it with a
  /// lock held.
  virtual void close() = 0;
  /// Closes without waiting for anything; returns at once.
  /// Default: as `close` does.
  virtual void closeAtOnce() { close(); }
  /// The server, as long as it lives.
  virtual std::shared_ptr<VELServer> server() const = 0;
  virtual VELUUID identifier() const = 0;
  /// Whether the transport is TLS.
  virtual bool isSecure() const = 0;
  /// The peer's numeric address; empty once the connection has closed.
  virtual VELSocketAddress peerAddress() const = 0;
  /// Closes at once when no request is under way, else after the answer to the present one.
  virtual void closeWhenIdle() = 0;
};
