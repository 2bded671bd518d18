// A host for the load of broadcasts: what one session receives goes to all, framed once.
#include <corvane/configuration.h>
#include <corvane/data.h>
#include <corvane/server.h>
#include <corvane/web_socket_route.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <utility>

namespace {

/// All sessions. The load opens them before the first message and closes them after the last, so
/// the lock, and what the set costs, are no part of the figures.
class Audience : public VELWebSocketRouteDelegate,
                 public VELWebSocketDelegate,
                 public std::enable_shared_from_this<Audience> {
 public:
  void webSocketRouteDidAcceptNewWebSocket(VELWebSocketRoute&,
                                           std::shared_ptr<VELWebSocket> webSocket) override {
    webSocket->setDelegate(weak_from_this());
    const std::lock_guard lock(mutex_);
    sessions_.insert(std::move(webSocket));
  }

  void webSocketDidReceiveMessage(VELWebSocket&, const VELWebSocketMessage& message) override {
    const auto news = VELWebSocketMessage::binaryMessage(message.data());
    const std::lock_guard lock(mutex_);
    for (const auto& session : sessions_) session->sendMessage(news);
  }

  void webSocketDidCloseWithError(VELWebSocket& webSocket, const VELError&) override {
    const std::lock_guard lock(mutex_);
    sessions_.erase(webSocket.shared_from_this());
  }

 private:
  std::mutex mutex_;
  std::unordered_set<std::shared_ptr<VELWebSocket>> sessions_;
};

}  // namespace

int main() {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  const auto audience = std::make_shared<Audience>();
  const auto route = std::make_shared<VELWebSocketRoute>("/", false);
  route->setDelegate(audience);
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->addRoute(route);
  const auto loops = std::make_shared<VELEventLoops>(1);
  const auto server = std::make_shared<VELServer>(configuration, loops);
  server->setInterface("127.0.0.1");
  VELError error;
  if (!server->start(&error)) {
    std::fprintf(stderr, "bench_broadcast_host: %s\n", error.description().c_str());
    return 1;
  }
  std::printf("Listening on http://127.0.0.1:%u/\n", unsigned{server->listeningPort()});
  std::fflush(stdout);
  int number = 0;
  sigwait(&ending, &number);
  server->kill();
}
