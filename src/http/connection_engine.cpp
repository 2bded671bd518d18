// The life of a connection: its creation and start, its idle time, its end.
#include "http/connection_engine.h"

#include <utility>

#include "corvane/http_connection.h"
#include "http/connection_debug.h"
#include "http/request_report.h"
#include "http/tags.h"
#include "platform/loop_pool.h"
#include "platform/queue_runner.h"

namespace vel {

namespace {

constexpr char kQueueLabel[] = "org.corvane.Connection";

std::shared_ptr<VELSerialQueue> makeConnectionQueue(const VELServer& server) {
  return QueueRunner::makeQueue(kQueueLabel, server.loops()->pool()->nextLoop());
}

}  // namespace

ConnectionEngine::ConnectionEngine(VELHTTPConnection& connection, std::shared_ptr<VELSocket> socket,
                                   const std::shared_ptr<VELServer>& server)
    : connection_(connection),
      socket_(std::move(socket)),
      queue_(makeConnectionQueue(*server)),
      server_(server),
      identifier_(VELUUID::UUID()),
      configuration_(*server->configuration()) {}

std::shared_ptr<ConnectionEngine> ConnectionEngine::self() {
  return {connection_.shared_from_this(), this};
}

void ConnectionEngine::start() {
  std::shared_ptr<ConnectionEngine> engine = self();
  QueueRunner::setLastResort(*queue_, engine);
  socket_->setDelegate(engine, queue_);
  queue_->async([engine = std::move(engine)] { engine->startConnection(); });
}

void ConnectionEngine::startConnection() {
  if (connectionDebugLog().isOn()) {
    connectionDebugLog().line("Connection started: \"", identifier_.UUIDString(), '"');
  }
  std::shared_ptr<const ConfigurationSnapshot> holder;
  const ConfigurationSnapshot& configuration = configuration_.current(&holder);
  if (!configuration.certificates.empty()) {
    VELTLSSettings settings;
    settings.isServer = true;
    settings.certificates = configuration.certificates;
    socket_->startTLS(settings);
  }
  startReadingRequest();
}

void ConnectionEngine::close() {
  queue_->async([engine = self()] { engine->closeAfterWriting(); });
}

void ConnectionEngine::closeAtOnce() {
  queue_->async([engine = self()] {
    if (engine->is_dead_) return;
    engine->holdUntilDeath();
    engine->socket_->disconnect();
  });
}

void ConnectionEngine::closeWhenIdle() {
  queue_->async([engine = self()] {
    if (engine->exchange_ && engine->exchange_->phase != Exchange::Phase::kAbandoned) {
      engine->closes_after_answer_ = true;
    } else {
      engine->closeAfterWriting();
    }
  });
}

void ConnectionEngine::closeAfterWriting() {
  if (is_dead_) return;
  holdUntilDeath();
  socket_->disconnectAfterWriting();
}

void ConnectionEngine::holdUntilDeath() {
  if (held_until_death_) return;
  held_until_death_ = std::make_unique<const std::shared_ptr<ConnectionEngine>>(self());
}

std::shared_ptr<VELSocket> ConnectionEngine::socket() const {
  return is_disconnected_.load(std::memory_order_acquire) ? nullptr : socket_;
}

void ConnectionEngine::socketDidDisconnect(VELSocket& /*socket*/,
                                           const std::optional<VELError>& /*error*/) {
  is_disconnected_.store(true, std::memory_order_release);
  die();
}

// Also the way in which a connection ends whose socket a route has taken over: the socket is not
// touched.
void ConnectionEngine::die() {
  if (is_dead_) return;
  is_dead_ = true;
  const auto held = std::move(held_until_death_);
  const std::unique_ptr<Exchange> last = std::move(exchange_);
  if (last) {
    const std::shared_ptr<VELResponse> response = std::move(last->response);
    if (response) response->connectionDidClose();
    if (last->client_left) (*last->client_left)();
    if (last->phase != Exchange::Phase::kHead && last->phase != Exchange::Phase::kBody) {
      reportFinished(server_.lock(), *last);
    }
  }
  leaveServer();
}

void ConnectionEngine::leaveServer() {
  if (std::exchange(has_left_server_, true)) return;
  if (const std::shared_ptr<VELServer> server = server_.lock()) {
    server->connectionDidClose(connection_.shared_from_this());
  }
}

// The exception has been logged. What it interrupted cannot be resumed, so the connection goes.
void ConnectionEngine::workDidThrow(const std::exception_ptr& /*exception*/) {
  if (is_dead_) {
    leaveServer();
    return;
  }
  if (exchange_) exchange_->phase = Exchange::Phase::kAbandoned;
  socket_->disconnect();
}

}  // namespace vel
