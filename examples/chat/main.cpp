// A chat: open the page in two browser windows, and what is written in one is read in both. Every message
// is framed once, however many are there to receive it.
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "corvane/block_route.h"
#include "corvane/configuration.h"
#include "corvane/server.h"
#include "corvane/web_socket_route.h"
#include "page.h"

namespace {

/// Everybody who is there.
class Room : public VELWebSocketRouteDelegate,
             public VELWebSocketDelegate,
             public std::enable_shared_from_this<Room> {
 public:
  void webSocketRouteDidAcceptNewWebSocket(VELWebSocketRoute&,
                                           std::shared_ptr<VELWebSocket> webSocket) override {
    webSocket->setDelegate(weak_from_this());
    const std::lock_guard lock(mutex_);
    members_.insert(std::move(webSocket));
  }

  void webSocketDidReceiveMessage(VELWebSocket& webSocket,
                                  const VELWebSocketMessage& message) override {
    constexpr size_t kLongest = 8192;
    if (!message.isText() || message.text().size() > kLongest) {
      webSocket.closeWithCode(1009, "Short texts only");
      return;
    }
    const auto news = VELWebSocketMessage::textMessage(message.text());
    const std::lock_guard lock(mutex_);
    for (const auto& member : members_) {
      member->sendMessage(news);
      // Who speaks is not read from while it takes nothing: the library sees to that.
      if (member.get() != &webSocket) checkThatItKeepsUp(member);
    }
  }

  void webSocketDidCloseWithError(VELWebSocket& webSocket, const VELError&) override {
    const std::lock_guard lock(mutex_);
    members_.erase(webSocket.shared_from_this());
  }

 private:
  // What a member does not take waits in memory: who falls too far behind has to leave.
  static void checkThatItKeepsUp(const std::shared_ptr<VELWebSocket>& member) {
    member->delegateQueue()->async([member] {
      constexpr size_t kMostUnsent = 1'000'000;
      const auto socket = member->socket();
      if (socket && socket->unsentLength() > kMostUnsent) member->closeWithCode(1008, "Too slow");
    });
  }

  std::mutex mutex_;
  std::set<std::shared_ptr<VELWebSocket>> members_;
};

std::shared_ptr<VELRoute> pageRoute() {
  auto route = std::make_shared<VELBlockRoute>("/", false);
  route->setHandler([](VELRoute&, std::shared_ptr<VELRequest> request, VELResponseHandler respond) {
    if (request->path() != "/") return respond(nullptr);
    auto page = VELResponse::responseWithString(kPage, VELUTF8StringEncoding, 200,
                                                "text/html; charset=utf-8");
    page->setValueForHeader("default-src 'self' 'unsafe-inline'", "Content-Security-Policy");
    respond(page);
  });
  return route;
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before the library starts its threads, so that sigwait below is the one that gets them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const auto room = std::make_shared<Room>();
  auto chat = std::make_shared<VELWebSocketRoute>("/chat", false);
  chat->setDelegate(room);
  // Nobody before the address is known; then this page, and none of other sites.
  chat->setAllowedOrigins(std::vector<std::string>());
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->addRoute(chat);
  configuration->addRoute(pageRoute());

  auto server = std::make_shared<VELServer>(configuration);
  server->setInterface("localhost");
  server->setPort(static_cast<uint16_t>(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 8080));
  VELError error;
  if (!server->start(&error)) {
    std::cerr << error.localizedDescription() << '\n';
    return EXIT_FAILURE;
  }
  const std::string port = std::to_string(server->listeningPort());
  chat->setAllowedOrigins(std::vector{"http://localhost:" + port, "http://127.0.0.1:" + port});
  std::cout << "Listening on http://localhost:" << port << "/" << std::endl;

  int received = 0;
  sigwait(&signals, &received);
  // Every page is told that the server goes away.
  const auto gone = std::make_shared<std::promise<void>>();
  server->drain(std::chrono::seconds(5), [gone] { gone->set_value(); });
  gone->get_future().wait();
  return EXIT_SUCCESS;
}
