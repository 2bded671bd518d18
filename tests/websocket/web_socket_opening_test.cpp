// WebSockets that are opened as a client, against a peer made of plain sockets: what it is asked, what its
// answers come to, and changes of mind at every moment.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <random>
#include <thread>

#include "corvane/web_socket_route.h"
#include "support/count.h"
#include "support/socket_events.h"
#include "support/test_server.h"
#include "websocket/opening_handshake.h"

namespace vel::test {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;

constexpr char kSwitching[] = "HTTP/1.1 101 Switching Protocols\r\n\r\n";
const std::string kCancelled = "NSCocoaErrorDomain 3072";

VELURL urlAt(uint16_t port, const std::string& rest = "/") {
  return *VELURL::URLWithString("ws://127.0.0.1:" + std::to_string(port) + rest);
}

/// One open, and what its handler is told.
class Open : public VELWebSocketDelegate {
 public:
  Open() = default;
  Open(const Open&) = delete;
  Open& operator=(const Open&) = delete;
  ~Open() override {
    if (const auto session = this->session()) session->closeAtOnce();
  }

  VELWebSocket::CompletionHandler handler() {
    return [this](std::shared_ptr<VELWebSocket> session, const std::optional<VELError>& error) {
      const std::lock_guard lock(mutex_);
      told_.push_back(session ? "session"
                      : error ? error->domain() + " " + std::to_string(error->code())
                              : "nothing");
      if (session) session_ = std::move(session);
      count_.add();
    };
  }
  /// What the handler was told, once that is `count` times.
  std::vector<std::string> told(int count) {
    EXPECT_TRUE(count_.reaches(count));
    queue->sync([] {});
    const std::lock_guard lock(mutex_);
    return told_;
  }
  std::shared_ptr<VELWebSocket> session() {
    const std::lock_guard lock(mutex_);
    return session_;
  }

  void webSocketDidReceiveMessage(VELWebSocket&, const VELWebSocketMessage& message) override {
    received += message.text();
    events.add();
  }
  void webSocketDidCloseWithError(VELWebSocket&, const VELError& error) override {
    end = error.domain() + " " + std::to_string(error.code());
    events.add();
  }

  const std::shared_ptr<VELSerialQueue> queue = std::make_shared<VELSerialQueue>("open");
  // Of the session; read once `events` tells.
  Count events;
  std::string received;
  std::string end;

 private:
  Count count_;
  std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<std::string> told_;
  std::shared_ptr<VELWebSocket> session_;
};

/// The same, and the accepted end of its connection.
struct OpenWithPeer {
  explicit OpenWithPeer(
      std::chrono::milliseconds timeout = VELURLRequest::kDefaultTimeoutInterval) {
    VELURLRequest request(urlAt(listener.port()));
    request.setTimeoutInterval(timeout);
    progress = VELWebSocket::openWebSocketWithRequest(request, open->queue, open->handler());
    peer = listener.accept();
  }
  ~OpenWithPeer() {
    progress->cancel();
    open->queue->sync([] {});
  }
  std::string readRequest() {
    std::string head;
    while (!head.ends_with("\r\n\r\n")) head += peer.receive(1);
    return head;
  }

  const std::shared_ptr<Open> open = std::make_shared<Open>();
  PeerListener listener;
  std::shared_ptr<VELProgress> progress;
  SocketPeer peer = SocketPeer::unconnected();
};

TEST(WebSocketOpening, AsksWithTheFieldsOfTheRequestAndItsOwnOverThem) {
  VELURLRequest request(*VELURL::URLWithString("wss://example.com:8443/a/%20b?q=1#fragment"));
  request.setValueForHTTPHeaderField("me", "User-Agent");
  request.setValueForHTTPHeaderField("other.example", "host");
  request.setValueForHTTPHeaderField("mine", "Sec-WebSocket-Key");
  request.addValueForHTTPHeaderField("chat", "Sec-WebSocket-Protocol");
  request.addValueForHTTPHeaderField("superchat", "Sec-WebSocket-Protocol");
  VELHTTPMessage message = vel::upgradeRequest(request, "example.com");
  const std::string key = *message["Sec-WebSocket-Key"];
  EXPECT_EQ(key.size(), 24U);
  EXPECT_NE(key, *vel::upgradeRequest(request, "example.com")["Sec-WebSocket-Key"]);
  message.setValueForHeaderField("KEY", "Sec-WebSocket-Key");
  EXPECT_EQ(message.messageData().string(),
            "GET /a/%20b?q=1 HTTP/1.1\r\nhost: example.com\r\nSec-WebSocket-Key: KEY\r\n"
            "Sec-WebSocket-Protocol: chat,superchat\r\nUser-Agent: me\r\nUpgrade: websocket\r\n"
            "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n\r\n");
  VELURLRequest bare(*VELURL::URLWithString("ws://[::1]"));
  const VELHTTPMessage toAddress = vel::upgradeRequest(bare, bare.URL().host());
  EXPECT_EQ(toAddress.messageData().string().substr(0, 16), "GET / HTTP/1.1\r\n");
  EXPECT_EQ(toAddress["Host"], "[::1]");
}

TEST(WebSocketOpening, TakesTheAnswerByItsStatus) {
  const std::string refused = "NSURLErrorDomain -1011";
  const std::string closed = "VELSocketErrorDomain 7";
  const struct {
    std::string answer;
    std::string told;
    std::optional<std::string> protocol = std::nullopt;
  } cases[] = {
      {kSwitching, "session"},
      {"HTTP/1.1 200 OK\r\nsec-websocket-protocol: b\r\n\r\n", "session", "b"},
      {"HTTP/1.0 101\r\nX: y\r\n\r\n", "session"},
      {"HTTP/1.1 400 Bad Request\r\n\r\n", refused},
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 101 OK\r\n\r\n", refused},
      {"HTTP/1.1 101 Switching Protocols\r\nno field\r\n\r\n", refused},
      {"GET / HTTP/1.1\r\n\r\n", refused},
      {"\r\n\r\n", refused},
      {"HTTP/1.1 101 OK\n\n\x82\x04\r\n\r\n", refused},
      {"HTTP/1.1 101 Switching Protocols\r\n\n", closed},
      {"", closed},
      {"HTTP/1.1 101 OK\r\nX: " + std::string(65'536, 'x'), "VELSocketErrorDomain 6"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer.substr(0, 60));
    OpenWithPeer client;
    client.readRequest();
    client.peer.send(c.answer);
    if (c.told == closed) client.peer.close();
    EXPECT_THAT(client.open->told(1), ElementsAre(c.told));
    if (const auto session = client.open->session()) {
      EXPECT_EQ(session->protocol(), c.protocol);
      EXPECT_EQ(session->delegateQueue(), client.open->queue);
    }
  }
}

TEST(WebSocketOpening, KeepsFramesThatCameWithTheAnswer) {
  OpenWithPeer client;
  client.readRequest();
  client.peer.send(std::string(kSwitching) +
                   "\x81\x05"
                   "first"
                   "\x81");
  EXPECT_THAT(client.open->told(1), ElementsAre("session"));
  const auto session = client.open->session();
  session->setDelegate(client.open);
  session->start();
  ASSERT_TRUE(client.open->events.reaches(1));
  client.peer.send(
      "\x06"
      "second" +
      std::string("\x88\x02\x03\xe8", 4));
  ASSERT_TRUE(client.open->events.reaches(3));
  EXPECT_EQ(client.open->received, "firstsecond");
  EXPECT_EQ(client.open->end, "VELWebSocketErrorDomain 1000");
}

TEST(WebSocketOpening, FailsInsideTheCallWhenItCannotBegin) {
  for (const char* url : {"ws:///path", "/path", ""}) {
    Open open;
    std::vector<std::string> told;
    const auto handler = open.handler();
    const auto caller = std::this_thread::get_id();
    std::optional<std::thread::id> first;
    const auto progress = VELWebSocket::openWebSocketWithURL(
        VELURL::URLWithString(url).value_or(VELURL()), {}, open.queue,
        [&](std::shared_ptr<VELWebSocket> session, const std::optional<VELError>& error) {
          if (!first) first = std::this_thread::get_id();
          handler(std::move(session), error);
        });
    EXPECT_EQ(first, caller);
    EXPECT_TRUE(progress->isCancelled());
    EXPECT_THAT(open.told(2), ElementsAre("VELSocketErrorDomain 2", kCancelled)) << url;
  }
}

TEST(WebSocketOpening, TellsACancellationAndTheDisconnectBehindIt) {
  OpenWithPeer client;
  client.readRequest();
  client.progress->cancel();
  EXPECT_THAT(client.open->told(2), ElementsAre(kCancelled, "nothing"));
  EXPECT_EQ(client.peer.receiveAll(), "");
}

TEST(WebSocketOpening, CancelledLaterEndsTheSessionAndTellsAgain) {
  OpenWithPeer client;
  client.readRequest();
  client.peer.send(kSwitching);
  client.open->told(1);
  client.open->session()->setDelegate(client.open);
  client.open->session()->start();
  client.progress->cancel();
  EXPECT_THAT(client.open->told(2), ElementsAre("session", kCancelled));
  ASSERT_TRUE(client.open->events.reaches(1));
  EXPECT_EQ(client.open->end, "VELWebSocketErrorDomain 1006");
}

TEST(WebSocketOpening, LeavesARefusedConnectionToTheProgress) {
  OpenWithPeer client;
  client.readRequest();
  client.peer.send("HTTP/1.1 403 Forbidden\r\n\r\n");
  client.open->told(1);
  client.progress = VELProgress::discreteProgress(-1);
  EXPECT_EQ(client.peer.receiveAll(), "");
  EXPECT_EQ(client.open->told(1).size(), 1U);
}

TEST(WebSocketOpening, WaitsAsLongAsTheRequestAllows) {
  OpenWithPeer client(std::chrono::seconds(100));
  client.readRequest();
  client.open->queue->sync([] {});
  passTime(*client.open->queue, std::chrono::seconds(90));
  EXPECT_EQ(client.open->told(0).size(), 0U);
  passTime(*client.open->queue, std::chrono::seconds(11));
  EXPECT_THAT(client.open->told(1), ElementsAre("VELSocketErrorDomain 4"));
}

TEST(WebSocketOpening, SurvivesPeersThatVanishAtEachStage) {
  for (const size_t part : {size_t{0}, size_t{1}, size_t{20}, std::string(kSwitching).size()}) {
    OpenWithPeer client;
    if (part > 0) client.readRequest();
    client.peer.send(std::string(kSwitching).substr(0, part));
    const bool isWhole = part == std::string(kSwitching).size();
    if (isWhole) client.open->told(1);
    client.peer.reset();
    if (!isWhole) {
      // A reset may also meet the request that is being written.
      EXPECT_THAT(client.open->told(1),
                  ElementsAre(AnyOf("VELSocketErrorDomain 7", "NSPOSIXErrorDomain 104")));
      continue;
    }
    client.open->session()->setDelegate(client.open);
    client.open->session()->start();
    ASSERT_TRUE(client.open->events.reaches(1));
    EXPECT_EQ(client.open->end, "VELWebSocketErrorDomain 1006");
  }
}

// Each is cancelled after a number of steps of its own, while others are under way.
TEST(WebSocketOpening, AThousandCancelledAtRandomMomentsLeaveNothingBehind) {
  TestServer server([](VELConfiguration& configuration) {
    configuration.addRoute(std::make_shared<VELWebSocketRoute>("/", false));
  });
  std::minstd_rand random(1);
  // Its queue brings the shared loops, which stay.
  const auto open = std::make_shared<Open>();
  const size_t before = openDescriptorCount();
  Count told;
  for (int round = 0; round < 50; ++round) {
    std::vector<std::shared_ptr<VELProgress>> opens(20);
    for (auto& progress : opens) {
      progress = VELWebSocket::openWebSocketWithURL(
          urlAt(server.port()), {"chat"}, random() % 2 ? open->queue : nullptr,
          [&told, start = random() % 2 == 0](const std::shared_ptr<VELWebSocket>& session,
                                             const std::optional<VELError>& error) {
            if (session && start) session->start();
            if (error && error->code() == VELUserCancelledError) told.add();
          });
      // Any of those before it, or one of the last round's sessions once more.
      opens[random() % 20 % (static_cast<size_t>(&progress - opens.data()) + 1)]->cancel();
      if (random() % 4 == 0) std::this_thread::yield();
    }
    for (const auto& progress : opens) progress->cancel();
  }
  EXPECT_TRUE(told.reaches(1000));
  EXPECT_TRUE(server.waitForConnections(0));
  open->queue->sync([] {});
  // The last sockets close on their queues.
  while (openDescriptorCount() > before) std::this_thread::yield();
}

}  // namespace
}  // namespace vel::test
