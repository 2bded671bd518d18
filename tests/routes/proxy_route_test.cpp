// Proxy routes between real clients and an upstream that misbehaves in every way it can.
#include "corvane/proxy_route.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "corvane/http_connection.h"
#include "platform/redirect.h"
#include "support/count.h"
#include "support/log_capture.h"
#include "support/socket_peer.h"
#include "support/test_server.h"

namespace vel::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::string_view kHeadEnd = "\r\n\r\n";

std::string okAnswer(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Accepts connections, each on a thread of its own, reads a head and does with it what the test says.
class Upstream {
 public:
  using Serve = std::function<void(SocketPeer& peer, const std::string& head)>;

  explicit Upstream(Serve serve) : serve_(std::move(serve)), acceptor_([this] { accept(); }) {}
  ~Upstream() {
    stops_ = true;
    SocketPeer::connectedTo(listener_.port());
    acceptor_.join();
    for (std::thread& thread : threads_) thread.join();
  }

  VELURL url(const std::string& path = "") const {
    return *VELURL::URLWithString("http://127.0.0.1:" + std::to_string(listener_.port()) + path);
  }

 private:
  void accept() {
    for (;;) {
      SocketPeer peer = listener_.accept();
      if (stops_) return;
      threads_.emplace_back([this, peer = std::move(peer)]() mutable {
        std::string head;
        while (!head.ends_with(kHeadEnd)) {
          const std::string byte = peer.receive(1);
          if (byte.empty()) return;
          head += byte;
        }
        serve_(peer, head);
      });
    }
  }

  const Serve serve_;
  PeerListener listener_{1024};
  std::atomic<bool> stops_{false};
  std::vector<std::thread> threads_;
  std::thread acceptor_;
};

std::string chunkLine(size_t length) {
  return VELHTTPConnection::chunkedTransferSizeLineForLength(length).string();
}

std::shared_ptr<VELProxyRoute> proxyRoute(const VELURL& url) {
  auto route = std::make_shared<VELProxyRoute>("/api", false);
  route->setURL(url);
  route->setAllowedHTTPMethods({"HEAD", "GET", "POST", "PUT"});
  return route;
}

// All that a server with `route` answers to `request`, on a connection of its own.
std::string answerTo(TestServer& server, const std::string& request) {
  SocketPeer client = SocketPeer::connectedTo(server.port());
  client.send(request);
  return client.receiveAll();
}

std::string get(TestServer& server, const std::string& path, const std::string& fields = "") {
  return answerTo(server, "GET " + path + " HTTP/1.1\r\nHost: front\r\n" + fields +
                              "Connection: close\r\n\r\n");
}

TEST(ProxyRoute, SendsFieldsAndBody) {
  Upstream upstream([](SocketPeer& peer, const std::string& head) {
    const size_t at = head.find("Content-Length: ");
    const size_t length = at == std::string::npos ? 0 : std::stoul(head.substr(at + 16));
    peer.send(okAnswer(head + std::to_string(peer.receive(length).size()) + " received"));
  });
  const auto route = proxyRoute(upstream.url("/base"));
  route->setHeaders({{"cookie", ""}, {"X-Added", "1"}, {"Accept", "image/png"}});
  TestServer server([&](VELConfiguration& configuration) { configuration.addRoute(route); });

  const std::string seen =
      get(server, "/api/users?id=3", "Cookie: a=1\r\nAccept: text/html\r\nX-Empty:\r\n");
  EXPECT_THAT(seen, HasSubstr("GET /base/users?id=3 HTTP/1.1\r\n"));
  EXPECT_THAT(seen, HasSubstr("Host: " + hostFieldOf(upstream.url()) + "\r\n"));
  for (const char* line : {"Connection: close", "X-Added: 1", "Accept: image/png", "X-Empty:"}) {
    EXPECT_THAT(seen, HasSubstr(std::string("\r\n") + line)) << line;
  }
  for (const char* line : {"Cookie", "text/html", "front", "Content-Length", "Expect"}) {
    EXPECT_THAT(seen.substr(seen.find("GET /base")), Not(HasSubstr(line))) << line;
  }

  // In memory and, above the limit, in a file; what the client said of the length is no matter.
  for (const size_t size : {size_t{0}, size_t{70'000}, size_t{6'000'000}}) {
    const std::string chunks = size == 0 ? "" : chunkLine(size) + std::string(size, 'b') + "\r\n";
    const std::string answer =
        answerTo(server,
                 "POST /api HTTP/1.1\r\nTransfer-Encoding: chunked\r\nExpect: 100-continue\r\n"
                 "Connection: close\r\n\r\n" +
                     chunks + "0\r\n\r\n");
    EXPECT_THAT(answer, HasSubstr("Content-Length: " + std::to_string(size) + "\r\n"));
    EXPECT_THAT(answer, HasSubstr(std::to_string(size) + " received"));
    EXPECT_THAT(answer, Not(HasSubstr("Transfer-Encoding")));
    EXPECT_THAT(answer, Not(HasSubstr("100-continue")));
  }
}

TEST(ProxyRoute, AnswersForEveryKindOfUpstream) {
  struct Case {
    const char* path;
    std::string sends;
    const char* status;
    const char* body;
  };
  std::string long_head = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 10; ++i) long_head += "X: " + std::string(60'000, 'x') + "\r\n";
  const Case cases[] = {
      {"/whole", "HTTP/1.1 404 No\r\nContent-Type: a/b\r\nSet-Cookie: c\r\n\r\nmissing", "404",
       "missing"},
      {"/interim", "HTTP/1.1 103 Hints\r\nLink: x\r\n\r\n" + okAnswer("late"), "200", "late"},
      {"/fewer", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabcdef", "200", "abc"},
      {"/more", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", "500", "lost"},
      {"/half-head", "HTTP/1.1 200 OK\r\nContent-Le", "500", "lost"},
      {"/nothing", "", "500", "lost"},
      {"/garbage", "\x01\x02 no http\r\n\r\n", "502", ""},
      {"/no-field", "HTTP/1.1 200 OK\r\nnonsense\r\n\r\n", "502", ""},
      {"/chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", "500", "lost"},
      {"/coding", "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 2\r\n\r\nno", "500",
       "decoded"},
      {"/head", long_head + "\r\n", "500", "too long"},
      {"/line", "HTTP/1.1 200 OK\r\nX: " + std::string(1 << 20, 'x') + "\r\n\r\n", "500",
       "too long"},
      {"/trailer",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\nHTTP/1.1: x\r\n\r\n",
       "200", "abc"},
      {"/switch", "HTTP/1.1 101 S\r\nUpgrade: x\r\nConnection: upgrade\r\n\r\n", "500", "switched"},
      {"/elsewhere", "HTTP/1.1 302 F\r\nLocation: ftp://h/\r\n\r\n", "500", "neither"},
      {"/circle", "HTTP/1.1 302 F\r\nLocation: /circle\r\n\r\n", "500", "too often"},
      {"/moved", "HTTP/1.1 302 F\r\nLocation: /whole\r\n\r\nignored", "404", "missing"},
      {"/injected", "HTTP/1.1 200 OK\r\nContent-Type: a\rX-Evil: 1\r\n\r\n", "200", ""},
  };
  const LogCapture log;
  Upstream upstream([&](SocketPeer& peer, const std::string& head) {
    for (const Case& row : cases) {
      if (head.find(std::string(" ") + row.path + " ") == std::string::npos) continue;
      peer.sendSome(row.sends);
    }
    peer.finish();
    // A reset would race with what was sent.
    peer.receiveAll();
  });
  TestServer server(
      [&](VELConfiguration& configuration) { configuration.addRoute(proxyRoute(upstream.url())); });
  for (const Case& row : cases) {
    const std::string answer = get(server, std::string("/api") + row.path);
    EXPECT_THAT(answer, StartsWith(std::string("HTTP/1.1 ") + row.status)) << row.path;
    EXPECT_THAT(answer, HasSubstr(row.body)) << row.path;
    EXPECT_THAT(answer, Not(HasSubstr("Set-Cookie"))) << row.path;
    EXPECT_THAT(answer, Not(HasSubstr("\rX-Evil"))) << row.path;
  }
  EXPECT_THAT(get(server, "/api/whole"), HasSubstr("Content-Type: a/b\r\n"));
  EXPECT_THAT(get(server, "/api/../x"), StartsWith("HTTP/1.1 404"));
}

// Tells what it sees; may answer in place of the upstream, and may block.
struct Delegate : VELProxyRouteDelegate {
  void proxyRouteWillPerformProxyURLRequest(VELProxyRoute&, VELURLRequest& proxyURLRequest,
                                            std::shared_ptr<VELRequest> request) override {
    proxyURLRequest.setValueForHTTPHeaderField(request->path(), "X-Path");
  }
  void proxyRouteDecideResponseForRequest(VELProxyRoute&, std::shared_ptr<VELRequest> request,
                                          std::shared_ptr<const VELURLResponse> proxyResponse,
                                          std::optional<VELData> data,
                                          std::optional<VELError> error,
                                          std::shared_ptr<VELResponse> suggestedResponse,
                                          VELResponseHandler completionHandler) override {
    EXPECT_EQ(proxyResponse != nullptr, data.has_value());
    EXPECT_EQ(suggestedResponse != nullptr, !error);
    if (request->path() == "/api/block") {
      entered.add();
      EXPECT_TRUE(may_go.reaches(1));
    }
    if (suggestedResponse) suggestedResponse->setValueForHeader("yes", "X-Reviewed");
    if (error) suggestedResponse = textResponse("instead of " + std::to_string(error->code()));
    completionHandler(suggestedResponse);
  }
  Count entered;
  Count may_go;
};

TEST(ProxyRoute, DelegateEditsDecidesAndMayBlock) {
  const LogCapture log;
  Upstream upstream([](SocketPeer& peer, const std::string& head) {
    if (head.find("X-Path: /api/fail") == std::string::npos) peer.send(okAnswer(head));
  });
  const auto delegate = std::make_shared<Delegate>();
  const auto route = proxyRoute(upstream.url());
  route->setDelegate(delegate);
  TestServer server([&](VELConfiguration& configuration) { configuration.addRoute(route); });

  SocketPeer blocked = SocketPeer::connectedTo(server.port());
  blocked.send("GET /api/block HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(delegate->entered.reaches(1));
  const std::string answer = get(server, "/api/x");
  EXPECT_THAT(answer, HasSubstr("X-Path: /api/x\r\n"));
  EXPECT_THAT(answer, HasSubstr("X-Reviewed: yes\r\n"));
  EXPECT_THAT(get(server, "/api/fail"), HasSubstr("instead of -1005"));
  delegate->may_go.add();
  EXPECT_THAT(blocked.receiveAll(), HasSubstr("X-Path: /api/block\r\n"));
}

TEST(ProxyRoute, EndsTransfersThatNobodyWaitsFor) {
  Count begun;
  Count ended;
  const size_t descriptors = openDescriptorCount();
  {
    Upstream upstream([&](SocketPeer& peer, const std::string&) {
      begun.add();
      EXPECT_EQ(peer.receiveAll(), "");
      ended.add();
    });
    auto route = proxyRoute(upstream.url());
    {
      TestServer server([&](VELConfiguration& configuration) { configuration.addRoute(route); });
      const std::string request = "GET /api HTTP/1.1\r\nHost: x\r\n\r\n";
      SocketPeer client = SocketPeer::connectedTo(server.port());
      client.send(request);
      ASSERT_TRUE(begun.reaches(1));
      ASSERT_EQ(route->transfers().size(), 1U);
      client.finish();
      EXPECT_TRUE(ended.reaches(1));
      EXPECT_EQ(client.receiveAll(), "");

      SocketPeer cancelled = SocketPeer::connectedTo(server.port());
      cancelled.send("GET /api HTTP/1.1\r\nConnection: close\r\n\r\n");
      ASSERT_TRUE(begun.reaches(2));
      route->transfers().at(0)->cancel();
      EXPECT_THAT(cancelled.receiveAll(), HasSubstr("was cancelled"));
      EXPECT_TRUE(ended.reaches(2));

      SocketPeer killed = SocketPeer::connectedTo(server.port());
      killed.send(request);
      ASSERT_TRUE(begun.reaches(3));
    }
    EXPECT_TRUE(ended.reaches(3));

    // A route that goes takes its transfers along, and their requests still get an answer.
    Count answered;
    auto request = std::make_shared<VELRequest>();
    request->setMethod("GET");
    route->evaluateWithRequest(
        request, [&](const std::shared_ptr<VELResponse>&, const std::optional<VELError>& error) {
          EXPECT_EQ(error.value_or(VELError()).code(), kVELURLErrorCancelled);
          answered.add();
        });
    ASSERT_TRUE(begun.reaches(4));
    route.reset();
    EXPECT_TRUE(answered.reaches(1));
    EXPECT_TRUE(ended.reaches(4));
  }
  EXPECT_LE(openDescriptorCount(), descriptors + 8) << "loops of sessions may stay open";
}

TEST(ProxyRoute, GivesUpOnSilence) {
  const LogCapture log;
  Upstream upstream([](SocketPeer& peer, const std::string&) { peer.receiveAll(); });
  struct Hasty : VELProxyRouteDelegate {
    void proxyRouteWillPerformProxyURLRequest(VELProxyRoute&, VELURLRequest& proxyURLRequest,
                                              std::shared_ptr<VELRequest>) override {
      proxyURLRequest.setTimeoutInterval(std::chrono::milliseconds(100));
    }
  };
  const auto delegate = std::make_shared<Hasty>();
  const auto route = proxyRoute(upstream.url());
  route->setDelegate(delegate);
  TestServer server([&](VELConfiguration& configuration) { configuration.addRoute(route); });
  EXPECT_THAT(get(server, "/api"), HasSubstr("timed out"));
}

TEST(ProxyRoute, LooksUpNamesOnceForCrowds) {
  const LogCapture log;
  const auto route = proxyRoute(*VELURL::URLWithString("http://no-such-host.invalid/"));
  Count answered;
  for (int i = 0; i < 50; ++i) {
    auto request = std::make_shared<VELRequest>();
    request->setMethod("GET");
    route->evaluateWithRequest(
        request, [&](const std::shared_ptr<VELResponse>&, const std::optional<VELError>& error) {
          EXPECT_EQ(error.value_or(VELError()).code(), kVELURLErrorCannotFindHost);
          answered.add();
          // Must not be at the cost of the others.
          throw std::runtime_error("a handler that fails");
        });
  }
  EXPECT_TRUE(answered.reaches(50));
}

}  // namespace
}  // namespace vel::test
