// Tests of a server's set of connections: who is told of changes, and how kill and drain empty it.
// The connections are doubles that a test closes by hand.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "corvane/error.h"
#include "corvane/server.h"
#include "support/wire.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::ThrowsMessage;

class Connection : public VELConnection {
 public:
  void close() override {
    ++closes;
    closes.notify_all();
  }
  void closeWhenIdle() override { ++idle_closes; }
  std::shared_ptr<VELServer> server() const override { return nullptr; }
  VELUUID identifier() const override { return {}; }
  bool isSecure() const override { return false; }
  VELSocketAddress peerAddress() const override { return {}; }

  /// Waits for it.
  bool wasClosed() const {
    closes.wait(0);
    return closes > 0;
  }

  std::atomic<int> closes{0};
  std::atomic<int> idle_closes{0};
};

class ConnectionSet : public testing::Test {
 protected:
  ~ConnectionSet() override {
    server_.reset();
    loops_.reset();
  }

  /// A promise that is kept, together with where, when a drain ends.
  struct Ending {
    std::promise<bool> was_on_queue;
    std::future<bool> future = was_on_queue.get_future();

    std::function<void()> completion(const std::shared_ptr<VELServer>& server) {
      return [this, tag = server.get()] {
        was_on_queue.set_value(VELSerialQueue::currentSpecific(tag) == tag);
      };
    }
    bool hasCome() {
      return future.wait_for(vel::test::kPatience) == std::future_status::ready && future.get();
    }
  };

  std::shared_ptr<VELEventLoops> loops_ = std::make_shared<VELEventLoops>(1);
  std::shared_ptr<VELServer> server_ = std::make_shared<VELServer>(nullptr, loops_);
  const std::shared_ptr<Connection> a_ = std::make_shared<Connection>();
  const std::shared_ptr<Connection> b_ = std::make_shared<Connection>();
};

TEST_F(ConnectionSet, TellsObserversBeforeAndAfter) {
  std::vector<std::string> told;
  const auto tell = [&](const VELChange& change) {
    // The set can be read meanwhile: no lock is held.
    told.push_back(
        std::string(change.key) + (change.kind == VELChange::Kind::kInsertion ? " +" : " -") +
        (change.isPrior ? " prior " : " ") + std::to_string(server_->numberOfConnections()) +
        (change.connection == a_ ? " a" : " b"));
  };
  const auto first = server_->observe("connections", tell);
  {
    const auto second = server_->observe("numberOfConnections", tell);
    server_->addConnection(a_);
  }
  EXPECT_THAT(told, ElementsAre("connections + prior 0 a", "numberOfConnections + prior 0 a",
                                "connections + 1 a", "numberOfConnections + 1 a"));
  told.clear();
  server_->addConnection(b_);
  server_->connectionDidClose(a_);
  EXPECT_THAT(told, ElementsAre("connections + prior 1 b", "connections + 2 b",
                                "connections - prior 2 a", "connections - 1 a"));
  EXPECT_THAT(server_->connections(), ElementsAre(b_));
}

TEST_F(ConnectionSet, LetsAnObserverEndItselfWhileItIsTold) {
  int told = 0;
  VELObservation observation;
  observation = server_->observe("connections", [&](const VELChange&) {
    ++told;
    observation = VELObservation();
  });
  server_->addConnection(a_);
  EXPECT_EQ(told, 1);
}

TEST_F(ConnectionSet, RefusesToObserveAnythingElse) {
  EXPECT_THAT([this] { (void)server_->observe("port", [](const VELChange&) {}); },
              ThrowsMessage<VELException>(StartsWith("NSUnknownKeyException")));
}

TEST_F(ConnectionSet, LetsAnObservationOutliveTheServer) {
  VELObservation observation = server_->observe("connections", [](const VELChange&) {});
  server_.reset();
  observation = VELObservation();
}

TEST_F(ConnectionSet, IsEmptiedByKillWithoutAWord) {
  server_->addConnection(a_);
  server_->addConnection(b_);
  int told = 0;
  const auto observation = server_->observe("connections", [&](const VELChange&) { ++told; });
  server_->kill();
  EXPECT_THAT(server_->connections(), IsEmpty());
  EXPECT_EQ(told, 0);
  EXPECT_EQ(a_->closes, 1);
  EXPECT_EQ(b_->closes, 1);
  server_->connectionDidClose(a_);
  EXPECT_EQ(told, 2);
}

TEST_F(ConnectionSet, IsKeptByStopAndClosedWithTheServer) {
  server_->addConnection(a_);
  server_->stop();
  EXPECT_EQ(server_->numberOfConnections(), 1U);
  EXPECT_EQ(a_->closes, 0);
  server_.reset();
  EXPECT_EQ(a_->closes, 1);
}

TEST_F(ConnectionSet, IsDrainedWhenTheLastConnectionCloses) {
  server_->addConnection(a_);
  server_->addConnection(b_);
  Ending ending;
  server_->drain(std::chrono::hours(1), ending.completion(server_));
  EXPECT_EQ(a_->idle_closes, 1);
  // A session that takes over a socket meanwhile has to end, too.
  const auto session = std::make_shared<Connection>();
  server_->addConnection(session);
  EXPECT_EQ(session->idle_closes, 1);
  server_->connectionDidClose(a_);
  server_->connectionDidClose(b_);
  EXPECT_EQ(ending.future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  // The server lives until it has told.
  const std::weak_ptr<VELServer> weak = server_;
  server_.reset();
  ASSERT_FALSE(weak.expired());
  weak.lock()->connectionDidClose(session);
  EXPECT_TRUE(ending.hasCome());
  for (const auto& connection : {a_, b_, session}) EXPECT_EQ(connection->closes, 0);
}

TEST_F(ConnectionSet, IsDrainedAtOnceWhenItIsEmpty) {
  Ending ending;
  server_->drain(std::chrono::milliseconds::max(), ending.completion(server_));
  EXPECT_TRUE(ending.hasCome());
}

TEST_F(ConnectionSet, IsKilledAtTheDeadline) {
  server_->addConnection(a_);
  Ending first;
  Ending second;
  server_->drain(std::chrono::hours(1), first.completion(server_));
  server_->drain(std::chrono::milliseconds(-1), second.completion(server_));
  EXPECT_TRUE(a_->wasClosed());
  EXPECT_EQ(server_->numberOfConnections(), 0U);
  // Those that were killed have to end as well.
  EXPECT_EQ(first.future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  server_->connectionDidClose(a_);
  EXPECT_TRUE(first.hasCome());
  EXPECT_TRUE(second.hasCome());
  EXPECT_EQ(a_->closes, 1);
}

TEST_F(ConnectionSet, EndsItsDrainWithoutAKillWhenTheServerStartsAgain) {
  server_->addConnection(a_);
  Ending ending;
  server_->drain(std::chrono::hours(1), ending.completion(server_));
  server_->setInterface("127.0.0.1");
  ASSERT_TRUE(server_->start());
  EXPECT_TRUE(ending.hasCome());
  EXPECT_EQ(server_->numberOfConnections(), 1U);
  EXPECT_EQ(a_->closes, 0);
  server_->kill();
}

TEST_F(ConnectionSet, EndsItsDrainWithAKill) {
  server_->addConnection(a_);
  Ending ending;
  server_->drain(std::chrono::hours(1), ending.completion(server_));
  server_->kill();
  server_->connectionDidClose(a_);
  EXPECT_TRUE(ending.hasCome());
}

}  // namespace
