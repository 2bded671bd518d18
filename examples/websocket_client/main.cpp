// A WebSocket client: sends each WORD and prints as many messages as come back.
//   websocket_client ws://localhost:8080/echo WORD...
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "corvane/web_socket.h"

namespace {

class Printer : public VELWebSocketDelegate {
 public:
  explicit Printer(int expected) : expected_(expected) {}

  void webSocketDidReceiveMessage(VELWebSocket& webSocket,
                                  const VELWebSocketMessage& message) override {
    std::cout << message.text() << std::endl;
    if (--expected_ == 0) webSocket.close();
  }
  void webSocketDidCloseWithError(VELWebSocket&, const VELError& error) override {
    end_.set_value(error);
  }
  std::future<VELError> end() { return end_.get_future(); }

 private:
  int expected_;
  std::promise<VELError> end_;
};

}  // namespace

int main(int argc, char** argv) {
  const auto url = argc > 2 ? VELURL::URLWithString(argv[1]) : std::nullopt;
  if (!url) {
    std::cerr << "Usage: websocket_client URL WORD...\n";
    return EXIT_FAILURE;
  }
  // The handler may be called again when what failed ends; the first word counts.
  using Opened = std::pair<std::shared_ptr<VELWebSocket>, std::optional<VELError>>;
  auto opening = std::make_shared<std::promise<Opened>>();
  std::future<Opened> opened = opening->get_future();
  const auto progress = VELWebSocket::openWebSocketWithURL(
      *url, {}, nullptr,
      [opening, told = false](std::shared_ptr<VELWebSocket> webSocket,
                              const std::optional<VELError>& error) mutable {
        if (!std::exchange(told, true)) opening->set_value({std::move(webSocket), error});
      });
  if (opened.wait_for(std::chrono::seconds(10)) != std::future_status::ready) progress->cancel();
  const auto [webSocket, error] = opened.get();
  if (!webSocket) {
    std::cerr << "No WebSocket: " << (error ? error->description() : "closed") << '\n';
    return EXIT_FAILURE;
  }

  const auto printer = std::make_shared<Printer>(argc - 2);
  std::future<VELError> end = printer->end();
  webSocket->setDelegate(printer);
  webSocket->start();
  try {
    for (int i = 2; i < argc; ++i) webSocket->sendMessage(argv[i]);
  } catch (const VELException& exception) {  // a word that is not UTF-8
    std::cerr << exception.what() << '\n';
    return EXIT_FAILURE;
  }
  const VELError reason = end.get();
  if (reason.domain() == VELWebSocketErrorDomain && reason.code() == 1000) return EXIT_SUCCESS;
  std::cerr << reason.description() << '\n';
  return EXIT_FAILURE;
}
