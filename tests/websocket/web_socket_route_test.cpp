// The upgrade on the wire: which requests become sessions, what the answer says, the hand-over of the socket,
// and how a server's end meets its sessions.
#include "corvane/web_socket_route.h"

#include <gmock/gmock.h>

#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>

#include "support/log_capture.h"
#include "support/test_server.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kClose1000("\x88\x02\x03\xe8", 4);
const std::string kClose1001("\x88\x02\x03\xe9", 4);

/// A frame with `payload` as a client sends it, under a key of four blanks.
std::string masked(uint8_t opcode, std::string_view payload) {
  std::string frame{static_cast<char>(0x80 | opcode), static_cast<char>(0x80 | payload.size())};
  frame += "    ";
  for (const char c : payload) frame += static_cast<char>(c ^ ' ');
  return frame;
}

std::string upgrade(std::string_view further = {}) {
  return "GET /echo HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n" +
         std::string(further) + "\r\n";
}

/// Echoes, and keeps what it is told.
class EchoDelegate : public VELWebSocketRouteDelegate,
                     public VELWebSocketDelegate,
                     public std::enable_shared_from_this<EchoDelegate> {
 public:
  struct Answers {
    std::optional<std::string> choice;
    std::function<void()> whenAsked;
    std::function<void()> whenAccepted;
  };
  struct Told {
    std::vector<std::string> offered;
    std::optional<std::string> protocol;
  };

  std::optional<std::string> webSocketRouteProtocolToEnforceForRequest(
      VELWebSocketRoute&, const VELRequest&, const std::vector<std::string>& protocols) override {
    const Answers answers = this->answers([&] { told_.offered = protocols; });
    if (answers.whenAsked) answers.whenAsked();
    return answers.choice;
  }
  void webSocketRouteDidAcceptNewWebSocket(VELWebSocketRoute&,
                                           std::shared_ptr<VELWebSocket> webSocket) override {
    const Answers answers = this->answers([&] { told_.protocol = webSocket->protocol(); });
    webSocket->setDelegate(weak_from_this());
    if (answers.whenAccepted) answers.whenAccepted();
  }
  void webSocketDidReceiveMessage(VELWebSocket& webSocket,
                                  const VELWebSocketMessage& message) override {
    webSocket.sendMessage(message);
  }

  /// Forgets what it was told.
  void setAnswers(Answers answers) {
    const std::lock_guard lock(mutex_);
    answers_ = std::move(answers);
    told_ = {};
  }
  Told told() const {
    const std::lock_guard lock(mutex_);
    return told_;
  }

 private:
  template <typename Keep>
  Answers answers(const Keep& keep) {
    const std::lock_guard lock(mutex_);
    keep();
    return answers_;
  }

  mutable std::mutex mutex_;
  Answers answers_;
  Told told_;
};

class WebSocketRoute : public ::testing::TestWithParam<Transport> {
 protected:
  /// Sends an upgrade request and reads the answer.
  std::unique_ptr<WireClient> open(std::string_view further = {}) {
    auto client = server_.connect();
    client->send(upgrade(further));
    EXPECT_EQ(client->readHead().status, 101);
    return client;
  }

  const std::shared_ptr<EchoDelegate> delegate_ = std::make_shared<EchoDelegate>();
  const std::shared_ptr<VELWebSocketRoute> route_ =
      std::make_shared<VELWebSocketRoute>("/echo", false);
  TestServer server_{{.transport = GetParam()}, [this](VELConfiguration& configuration) {
                       route_->setDelegate(delegate_);
                       configuration.addRoute(route_);
                     }};
};
INSTANTIATE_WIRE_TABLE(WebSocketRoute);

TEST_P(WebSocketRoute, AnswersWithTheFieldsOfTheHandshakeAndNoOthers) {
  const auto client = server_.connect();
  client->send(upgrade("Sec-WebSocket-Protocol: chat\r\n"));
  const AnswerHead answer = client->readHead();
  EXPECT_EQ(answer.version + " " + answer.reason, "HTTP/1.1 Switching Protocols");
  EXPECT_THAT(answer.fields, ElementsAre("Upgrade: websocket", "Connection: Upgrade",
                                         "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=",
                                         "Sec-WebSocket-Protocol: chat"));
  EXPECT_EQ(server_.server().numberOfConnections(), 1U);
}

TEST_P(WebSocketRoute, DecidesByMethodAndTwoFields) {
  const struct {
    const char* request;
    int status;
    const char* field;
  } cases[] = {
      {"GET /echo HTTP/1.1\r\nUpgrade: WEBSOCKET\r\nConnection: keep-alive, Upgrade\r\n", 101,
       "Connection: keep-alive, Upgrade"},
      // The accept value of a key that was not there.
      {"GET /echo HTTP/1.1\r\nUpgrade: websocket\r\nConnection: xupgradex\r\n", 101,
       "Sec-WebSocket-Accept: Kfh9QIsMVZcl6xEPYxPHzW8SZ8w="},
      {"HEAD /echo HTTP/1.1\r\nUpgrade: websocket\r\nConnection: upgrade\r\n", 101,
       "Upgrade: websocket"},
      {"GET /echo HTTP/1.1\r\nUpgrade: websocket\r\nConnection: keep-alive\r\n", 404, nullptr},
      {"GET /echo HTTP/1.1\r\nUpgrade: websocket, h2c\r\nConnection: Upgrade\r\n", 404, nullptr},
      {"GET /echo HTTP/1.1\r\nConnection: Upgrade\r\n", 404, nullptr},
      {"POST /echo HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n", 405, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    const auto client = server_.connect();
    client->send(std::string(c.request) + "\r\n");
    const AnswerHead answer = client->readHead();
    EXPECT_EQ(answer.status, c.status);
    const ::testing::Matcher<std::vector<std::string>> none = Not(Contains(HasSubstr("Sec-")));
    EXPECT_THAT(answer.fields, c.field != nullptr ? Contains(c.field) : none);
  }
}

TEST_P(WebSocketRoute, ChoosesASubprotocolThatWasOffered) {
  const struct {
    const char* field;
    std::optional<std::string> choice;
    std::optional<std::string> expected;
    std::vector<std::string> offered;
  } cases[] = {
      {"", "chat", std::nullopt, {}},
      {"Sec-WebSocket-Protocol: , ,\t,\r\n", "chat", std::nullopt, {}},
      {"Sec-WebSocket-Protocol: chat, superchat\r\n", std::nullopt, "chat", {"chat", "superchat"}},
      {"Sec-WebSocket-Protocol:chat,\tsuperchat ,\r\n",
       "superchat",
       "superchat",
       {"chat", "superchat"}},
      {"Sec-WebSocket-Protocol: chat\r\nSec-WebSocket-Protocol: b\r\n", "b", "b", {"chat", "b"}},
      {"Sec-WebSocket-Protocol: chat, superchat\r\n", "Superchat", "chat", {"chat", "superchat"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.field);
    delegate_->setAnswers({c.choice, nullptr, nullptr});
    const auto client = server_.connect();
    client->send(upgrade(c.field) + masked(1, "x"));
    EXPECT_EQ(client->readHead().value("Sec-WebSocket-Protocol"), c.expected);
    // The session has been accepted by the time that it echoes.
    EXPECT_EQ(client->readBytes(3), "\x81\x01x");
    const EchoDelegate::Told told = delegate_->told();
    EXPECT_EQ(told.offered, c.offered);
    EXPECT_EQ(told.protocol, c.expected);
  }
}

TEST_P(WebSocketRoute, KnowsItsOriginsWhenTold) {
  route_->setAllowedOrigins(std::vector<std::string>{"https://a.example"});
  open("Origin: https://a.example\r\n");
  open();
  EXPECT_EQ(server_.connect()->exchange(upgrade("Origin: https://a.example:444\r\n")).status, 403);
}

TEST_P(WebSocketRoute, HandsOverWhatWasReadAhead) {
  const auto client = server_.connect();
  client->send(upgrade() + masked(1, "first") + masked(2, "second"));
  EXPECT_EQ(client->readHead().status, 101);
  EXPECT_EQ(client->readBytes(15),
            "\x81\x05"
            "first"
            "\x82\x06"
            "second");
  EXPECT_EQ(server_.waitForFinishedRequests(1).front().status, 101U);
}

TEST_P(WebSocketRoute, LeavesSessionsAloneOnStopAndClosesThemOnKillAndDrain) {
  const auto client = open();
  server_.server().stop();
  client->send(masked(1, "x"));
  EXPECT_EQ(client->readBytes(3), "\x81\x01x");
  server_.server().kill();
  EXPECT_EQ(server_.server().numberOfConnections(), 0U);
  EXPECT_EQ(client->readToEnd(), kClose1000);

  ASSERT_TRUE(server_.server().start());
  const auto drained = open();
  std::promise<void> end;
  server_.server().drain(std::chrono::hours(1), [&end] { end.set_value(); });
  EXPECT_EQ(drained->readToEnd(), kClose1001);
  EXPECT_TRUE(server_.waitFor(end.get_future()));
}

TEST_P(WebSocketRoute, DoesNotLetASessionEscapeAKillOrDrainOfTheMoment) {
  const std::function<void()> kill = [this] { server_.server().kill(); };
  const std::function<void()> drain = [this] { server_.server().drain(std::chrono::hours(1)); };
  for (const bool isDrain : {false, true}) {
    for (const bool isAccepted : {false, true}) {
      SCOPED_TRACE(isDrain * 2 + isAccepted);
      ASSERT_TRUE(server_.server().start());
      const std::function<void()>& end = isDrain ? drain : kill;
      delegate_->setAnswers({std::nullopt, isAccepted ? nullptr : end, isAccepted ? end : nullptr});
      const auto client = open("Sec-WebSocket-Protocol: chat\r\n");
      EXPECT_EQ(client->readToEnd(), isDrain ? kClose1001 : kClose1000);
    }
  }
}

TEST_P(WebSocketRoute, ClosesWhatItsDelegateThrowsAt) {
  const LogCapture log;
  const auto oops = [] { throw std::runtime_error("oops"); };
  delegate_->setAnswers({std::nullopt, oops, nullptr});
  const auto early = server_.connect();
  early->send(upgrade("Sec-WebSocket-Protocol: chat\r\n"));
  EXPECT_EQ(early->readToEnd(), "");
  delegate_->setAnswers({std::nullopt, nullptr, oops});
  const auto late = server_.connect();
  late->send(upgrade());
  late->readToEnd();
  EXPECT_TRUE(server_.waitForConnections(0));
  EXPECT_THAT(log.lines(), Contains(HasSubstr("oops")));
}

TEST_P(WebSocketRoute, ForgetsClientsThatVanishAtAnyStage) {
  const std::string frame = masked(1, "hello");
  for (const std::string& further : {std::string(), frame.substr(0, 1), frame.substr(0, 4),
                                     frame.substr(0, 9), frame, masked(8, "\x03\xe8")}) {
    for (const bool readsAnswer : {false, true}) {
      const auto client = server_.connect();
      client->send(upgrade() + further);
      if (readsAnswer) client->readHead();
      client->wire().reset();
    }
  }
  EXPECT_TRUE(server_.waitForConnections(0));
}

TEST_P(WebSocketRoute, SessionsWithoutADelegateDropWhatTheyReceive) {
  route_->setDelegate({});
  const auto client = open();
  client->send(masked(1, "dropped") + masked(9, "ping"));
  EXPECT_EQ(client->readBytes(6), "\x8a\x04ping");
}

TEST(WebSocketRouteAlone, AnswersRequestsWithoutAConnection) {
  VELWebSocketRoute route("/", false);
  auto request = std::make_shared<VELRequest>();
  VELDictionary headers;
  headers["UPGRADE"] = "websocket";
  headers["CONNECTION"] = "Upgrade";
  request->setHeaders(headers);
  request->setMethod("GET");
  EXPECT_TRUE(VELWebSocket::isWebSocketRequest(*request));
  uint64_t status = 0;
  route.evaluateWithRequest(
      request, [&](const std::shared_ptr<VELResponse>& response, const std::optional<VELError>&) {
        status = response->status();
      });
  EXPECT_EQ(status, 404U);
}

}  // namespace
}  // namespace vel::test
