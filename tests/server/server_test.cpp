// Tests of a server over real sockets: where it listens, and how it starts and ends.
#include "corvane/server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <future>

#include "corvane/error.h"
#include "corvane/log.h"
#include "support/log_capture.h"
#include "support/socket_wire.h"
#include "support/test_server.h"

namespace {

using vel::test::kPatience;
using vel::test::SocketWire;
using vel::test::TestServer;
using vel::test::WireClient;

bool hasIPv6() { return ::access("/proc/net/if_inet6", F_OK) == 0; }

class Server : public testing::Test {
 protected:
  Server() { server_->setInterface("127.0.0.1"); }
  ~Server() override {
    if (server_) server_->kill();
  }

  /// Whether somebody answers at the server's present port.
  bool isServed(const std::string& host) const {
    try {
      WireClient client(std::make_unique<SocketWire>(host, server_->listeningPort()));
      // No route matches.
      return client.exchange("GET / HTTP/1.1\r\nConnection: close\r\n\r\n").status == 404;
    } catch (const std::exception&) {
      return false;
    }
  }

  std::shared_ptr<VELEventLoops> loops_ = std::make_shared<VELEventLoops>(1);
  std::shared_ptr<VELServer> server_ = std::make_shared<VELServer>(nullptr, loops_);
};

TEST_F(Server, BeginsWithADefaultConfigurationAndListensNowhere) {
  EXPECT_EQ(server_->configuration()->keepAliveInterval(), 15.0);
  EXPECT_FALSE(server_->isRunning());
  EXPECT_EQ(server_->listeningPort(), 0);
  EXPECT_THROW(server_->setConfiguration(nullptr), VELException);
  server_->stop();
}

TEST_F(Server, ListensOnAPortThatTheSystemChooses) {
  VELError error(VELPOSIXErrorDomain, 1);
  ASSERT_TRUE(server_->start(&error));
  EXPECT_EQ(error.code(), 1);
  EXPECT_TRUE(server_->isRunning());
  EXPECT_EQ(server_->port(), 0);
  EXPECT_NE(server_->listeningPort(), 0);
  EXPECT_EQ(server_->listeningAddress().host, "127.0.0.1");
  EXPECT_EQ(server_->listeningAddress().port, server_->listeningPort());
  EXPECT_TRUE(isServed("127.0.0.1"));
}

TEST_F(Server, StaysWhereItIsWhenItIsStartedTwice) {
  ASSERT_TRUE(server_->start());
  const uint16_t port = server_->listeningPort();
  server_->setPort(1);
  server_->setInterface("no such interface");
  EXPECT_TRUE(server_->start());
  EXPECT_EQ(server_->listeningPort(), port);
  EXPECT_TRUE(isServed("127.0.0.1"));
}

TEST_F(Server, TellsWhyItCannotListen) {
  ASSERT_TRUE(server_->start());
  const auto other = std::make_shared<VELServer>(nullptr, loops_);
  const struct {
    const char* interface;
    uint16_t port;
  } cases[] = {{"127.0.0.1", server_->listeningPort()}, {"no such interface", 0}, {"192.0.2.1", 0}};
  for (const auto& [interface, port] : cases) {
    other->setInterface(interface);
    other->setPort(port);
    VELError error;
    EXPECT_FALSE(other->start(&error)) << interface;
    EXPECT_NE(error.code(), 0) << interface;
    EXPECT_FALSE(other->isRunning()) << interface;
    EXPECT_EQ(other->listeningPort(), 0) << interface;
  }
  // It is none the worse for it.
  other->setInterface("127.0.0.1");
  EXPECT_TRUE(other->start());
  other->kill();
}

TEST_F(Server, StartsAgainAfterAStop) {
  ASSERT_TRUE(server_->start());
  const uint16_t port = server_->listeningPort();
  for (const bool keepsConnections : {true, false}) {
    server_->stop(keepsConnections);
    EXPECT_FALSE(server_->isRunning());
    EXPECT_EQ(server_->listeningPort(), port);
    EXPECT_FALSE(isServed("127.0.0.1"));
    server_->setPort(port);
    VELError error;
    ASSERT_TRUE(server_->start(&error)) << error.description();
    EXPECT_TRUE(isServed("127.0.0.1"));
  }
}

TEST_F(Server, ListensOnInterfacesByNameAndAddress) {
  const struct {
    std::optional<std::string> interface;
    std::vector<const char*> hosts;
    std::vector<const char*> others;
  } cases[] = {
      {"lo", {"127.0.0.1"}, {}},
      {"localhost", {"127.0.0.1", "::1"}, {"127.0.0.2"}},
      {"loopback", {"127.0.0.1", "::1"}, {}},
      {"127.0.0.2", {"127.0.0.2"}, {"127.0.0.1", "::1"}},
      {"::1", {"::1"}, {"127.0.0.1"}},
      {std::nullopt, {"127.0.0.1", "127.0.0.2", "::1"}, {}},
  };
  for (const auto& [interface, hosts, others] : cases) {
    if (interface == "::1" && !hasIPv6()) continue;
    server_->setInterface(interface);
    VELError error;
    ASSERT_TRUE(server_->start(&error)) << error.description();
    for (const std::string host : hosts) {
      EXPECT_TRUE(isServed(host) || (host == "::1" && !hasIPv6())) << host;
    }
    for (const char* const host : others) EXPECT_FALSE(isServed(host)) << host;
    server_->kill();
  }
}

TEST_F(Server, StartsAndStopsInPlaceOnItsOwnQueue) {
  std::promise<bool> done;
  // The completion of a drain runs on the queue.
  server_->drain(std::chrono::milliseconds(0), [&] {
    bool isRight = VELSerialQueue::currentSpecific(server_.get()) == server_.get();
    isRight = isRight && server_->start() && server_->isRunning();
    server_->stop();
    isRight = isRight && !server_->isRunning() && server_->start();
    done.set_value(isRight);
  });
  auto future = done.get_future();
  ASSERT_EQ(future.wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(future.get());
  EXPECT_TRUE(isServed("127.0.0.1"));
}

TEST_F(Server, ClosesItsPortAndItsConnectionsWhenItGoesAway) {
  ASSERT_TRUE(server_->start());
  const uint16_t port = server_->listeningPort();
  std::promise<void> accepted;
  const auto observation = server_->observe("connections", [&](const VELChange& change) {
    if (!change.isPrior) accepted.set_value();
  });
  WireClient client(std::make_unique<SocketWire>("127.0.0.1", port));
  ASSERT_EQ(accepted.get_future().wait_for(kPatience), std::future_status::ready);
  server_.reset();
  EXPECT_EQ(client.readToEnd(), "");
  const auto next = std::make_shared<VELServer>(nullptr, loops_);
  next->setInterface("127.0.0.1");
  next->setPort(port);
  VELError error;
  EXPECT_TRUE(next->start(&error)) << error.description();
  next->kill();
}

/// Serves one connection with debug logging on, and leaves with 0 when the server logged what it
/// should. In a process of its own, as the default is read once.
[[noreturn]] void serveOneConnectionWithDebugLogging() {
  VELSetDebugLogging(true);
  std::vector<std::string> logged;
  std::string identifier;
  {
    const vel::test::LogCapture log;
    TestServer test([](VELConfiguration&) {});
    auto client = test.connect();
    EXPECT_TRUE(test.waitForConnections(1));
    identifier = test.server().connections().front()->identifier().UUIDString();
    client.reset();
    EXPECT_TRUE(test.waitForConnections(0));
    logged = log.lines();
  }
  const auto position = [&logged](const std::string& line) {
    return std::find(logged.begin(), logged.end(), line) - logged.begin();
  };
  const ptrdiff_t banner = position("DEBUG LOGGING IS ON");
  const ptrdiff_t accepting = position("Accepting connection: \"" + identifier + "\"");
  const ptrdiff_t closing = position("Closing connection: \"" + identifier + "\"");
  const bool isRight = banner == 0 && accepting == 1 && closing > accepting &&
                       closing < static_cast<ptrdiff_t>(logged.size());
  for (const std::string& line : logged) std::fprintf(stderr, "%s\n", line.c_str());
  std::_Exit(isRight ? 0 : 1);
}

TEST(ServerDeathTest, LogsConnectionsWhenDebugLoggingIsOn) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(serveOneConnectionWithDebugLogging(), testing::ExitedWithCode(0), "");
}

}  // namespace
