// FakeConnection: an HTTP connection over a FakeSocket, with a server that does not listen.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/block_route.h"
#include "corvane/http_connection.h"
#include "corvane/server.h"
#include "support/fake_socket.h"

namespace vel::test {

using Handler = std::function<void(const std::shared_ptr<VELRequest>&, VELResponseHandler)>;

/// A route for every path that begins with `path`; every method unless some are given.
std::shared_ptr<VELRoute> routeFor(std::string_view path, Handler handler,
                                   std::vector<std::string> methods = {"GET", "HEAD", "POST",
                                                                       "PUT"});
/// A handler that answers with `body`.
Handler answeringWith(std::string body);

std::shared_ptr<VELConfiguration> configurationWith(
    std::vector<std::shared_ptr<VELRoute>> routes,
    std::vector<std::shared_ptr<VELMiddleware>> middlewares = {});

/// `message` without its "Date" lines.
std::string withoutDates(std::string message);

class FakeConnection {
 public:
  explicit FakeConnection(std::shared_ptr<VELConfiguration> configuration,
                          std::shared_ptr<VELEventLoops> loops = nullptr);
  /// One route for every path.
  explicit FakeConnection(Handler handler);
  FakeConnection(const FakeConnection&) = delete;
  FakeConnection& operator=(const FakeConnection&) = delete;
  ~FakeConnection();

  FakeSocket& socket() { return *socket_; }
  VELServer& server() { return *server_; }
  const std::shared_ptr<VELHTTPConnection>& connection() { return connection_; }
  /// Leaves the connection to its server.
  void dropConnection() { connection_.reset(); }

  /// What the connection writes when `bytes` arrive, without dates.
  std::string answerTo(std::string_view bytes);
  /// Whether the connection is reading the next head.
  bool isReadingHead();

 private:
  const std::shared_ptr<VELServer> server_;
  const std::shared_ptr<FakeSocket> socket_ = std::make_shared<FakeSocket>();
  std::shared_ptr<VELHTTPConnection> connection_;
};

}  // namespace vel::test
