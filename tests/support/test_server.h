// TestServer: a server on an ephemeral port with loops of its own, and what tests want to know of it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "corvane/block_route.h"
#include "corvane/configuration.h"
#include "corvane/server.h"
#include "support/manual_loops.h"
#include "support/wire_client.h"

namespace vel::test {

/// What carries the bytes between a test and its server. In memory the server runs on the test's thread,
/// inside the operations of clients and of this class.
enum class Transport { kTCP, kTLS, kMemory, kMemoryByBytes, kMemoryTLSByBytes };

std::string transportName(Transport transport);

/// A block route for GET and HEAD.
std::shared_ptr<VELBlockRoute> blockRoute(const std::string& path, VELBlockRoute::Handler handler);
/// A block route that answers with `text`.
std::shared_ptr<VELBlockRoute> textRoute(const std::string& path, const std::string& text);
/// A plain text answer with status 200.
std::shared_ptr<VELResponse> textResponse(const std::string& text);

/// What the server told of a finished request.
struct FinishedRequest {
  std::string method;
  std::string target;
  uint64_t status;
  uint64_t bytesSent;
  uint64_t bodyBytesSent;
  bool hasRequest;
};

class TestServer {
 public:
  struct Options {
    Transport transport = Transport::kTCP;
    size_t loops = 1;
  };

  /// Starts a server with what `configure` makes of a fresh configuration, and a route for `isAlive`.
  TestServer(const Options& options, const std::function<void(VELConfiguration&)>& configure);
  explicit TestServer(const std::function<void(VELConfiguration&)>& configure)
      : TestServer(Options(), configure) {}
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;
  /// Closes every connection and waits until they are gone.
  ~TestServer();

  VELServer& server() { return *server_; }
  /// The loops of a server in memory.
  ManualLoops& manualLoops() { return *manual_loops_; }
  uint16_t port() const { return server_->listeningPort(); }

  /// A new connection over the server's transport.
  std::unique_ptr<WireClient> connect();
  /// A new connection of bare bytes.
  std::unique_ptr<WireClient> connectPlain();

  /// Whether `client` is still served: asks for something and compares the answer.
  static bool isServed(WireClient& client);

  /// Waits until the server has `count` connections.
  bool waitForConnections(size_t count);
  /// Waits for something that happens on the server's loops.
  bool waitFor(const std::future<void>& event);
  /// Waits until `count` requests are finished, and gives them.
  std::vector<FinishedRequest> waitForFinishedRequests(size_t count);

 private:
  template <typename Predicate>
  bool waitUntil(const Predicate& predicate);

  std::unique_ptr<Wire> connectWire();

  const Transport transport_;
  const std::shared_ptr<ManualLoops> manual_loops_;
  std::shared_ptr<VELEventLoops> loops_;
  std::shared_ptr<VELServer> server_;
  VELObservation observation_;

  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::vector<FinishedRequest> finished_;
  // Connections that came and have not told their end.
  int unclosed_ = 0;
};

}  // namespace vel::test
