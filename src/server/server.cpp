// VELServer: the listening socket, the set of connections, and how both end. What happens on a
// connection is in src/http/.
#include "corvane/server.h"

#include <utility>

#include "corvane/http_connection.h"
#include "platform/log.h"
#include "server/observer_list.h"

namespace {

vel::DebugLog g_debug;

constexpr std::string_view kObservableKeys[] = {"connections", "numberOfConnections"};

}  // namespace

VELServer::VELServer(std::shared_ptr<VELConfiguration> configuration,
                     std::shared_ptr<VELEventLoops> loops)
    : loops_(loops ? loops : VELEventLoops::sharedLoops()),
      queue_(std::make_shared<VELSerialQueue>("org.corvane.Server", loops_)),
      observers_(std::make_shared<vel::ObserverList>()),
      configuration_(configuration ? std::move(configuration)
                                   : std::make_shared<VELConfiguration>()) {
  queue_->setSpecific(this, this);
}

VELServer::~VELServer() {
  if (running_) socket_->disconnect();
  for (const auto& connection : connections_) connection->close();
  queue_->setSpecific(this, nullptr);
}

bool VELServer::start(VELError* error) {
  if (running_) return true;
  bool started = false;
  runOnQueue([&] { started = startOnQueue(error); });
  return started;
}

void VELServer::stop(bool keepConnections) {
  runOnQueue([&] {
    stopOnQueue();
    if (keepConnections) return;
    closeConnections();
    endDrainIfEmpty();
  });
}

/// Runs `work` on the queue before it returns; in place where the caller is on it already.
void VELServer::runOnQueue(const std::function<void()>& work) {
  if (queue_->isCurrent()) {
    work();
  } else {
    queue_->sync(work);
  }
}

bool VELServer::startOnQueue(VELError* error) {
  // Another thread's start may have come first.
  if (running_) return true;
  if (!socket_) socket_ = VELSocket::socketWithDelegate(weak_from_this(), queue_);
  if (!socket_->acceptOnInterface(interface(), port_, error)) return false;
  running_ = true;
  VELSocketAddress address = socket_->localAddress();
  listening_port_ = address.port;
  {
    const std::lock_guard lock(mutex_);
    listening_address_ = std::move(address);
  }
  endDrain();
  return true;
}

void VELServer::stopOnQueue() {
  if (running_.exchange(false)) socket_->disconnect();
}

/// Closes every connection and empties the set, which observers are not told.
void VELServer::closeConnections() {
  const std::lock_guard lock(connections_mutex_);
  for (const auto& connection : connections_) connection->close();
  closing_.insert(connections_.begin(), connections_.end());
  connections_.clear();
}

std::shared_ptr<VELConfiguration> VELServer::configuration() const {
  const std::lock_guard lock(mutex_);
  return configuration_;
}

void VELServer::setConfiguration(std::shared_ptr<VELConfiguration> configuration) {
  if (!configuration) {
    throw VELException(VELInvalidArgumentException, "A server needs a configuration");
  }
  const std::lock_guard lock(mutex_);
  configuration_.swap(configuration);
}

std::optional<std::string> VELServer::interface() const {
  const std::lock_guard lock(mutex_);
  return interface_;
}

void VELServer::setInterface(std::optional<std::string> interface) {
  const std::lock_guard lock(mutex_);
  interface_.swap(interface);
}

VELSocketAddress VELServer::listeningAddress() const {
  const std::lock_guard lock(mutex_);
  return listening_address_;
}

std::vector<std::shared_ptr<VELConnection>> VELServer::connections() const {
  const std::lock_guard lock(connections_mutex_);
  return {connections_.begin(), connections_.end()};
}

size_t VELServer::numberOfConnections() const {
  const std::lock_guard lock(connections_mutex_);
  return connections_.size();
}

bool VELServer::isClosing(const std::shared_ptr<VELConnection>& connection) const {
  const std::lock_guard lock(connections_mutex_);
  return closing_.contains(connection);
}

std::string_view VELServer::HTTPVersion() const { return "HTTP/1.1"; }

VELObservation VELServer::observe(const std::string& key,
                                  std::function<void(const VELChange&)> callback) {
  for (const std::string_view observable : kObservableKeys) {
    if (key == observable) return VELObservation(observers_->add(key, std::move(callback)));
  }
  throw VELException(VELUnknownKeyException, "VELServer tells no changes of \"" + key + "\"");
}

void VELServer::setRequestFinishedHandler(std::function<void(const VELRequestSummary&)> handler) {
  std::shared_ptr<const std::function<void(const VELRequestSummary&)>> stored;
  if (handler) {
    stored =
        std::make_shared<const std::function<void(const VELRequestSummary&)>>(std::move(handler));
  }
  const std::lock_guard lock(mutex_);
  request_finished_handler_.swap(stored);
  has_request_finished_handler_ = request_finished_handler_ != nullptr;
}

std::shared_ptr<const std::function<void(const VELRequestSummary&)>>
VELServer::requestFinishedHandler() const {
  const std::lock_guard lock(mutex_);
  return request_finished_handler_;
}

void VELServer::addConnection(const std::shared_ptr<VELConnection>& connection) {
  observers_->notify(VELChange::Kind::kInsertion, true, connection);
  {
    const std::lock_guard lock(connections_mutex_);
    connections_.insert(connection);
  }
  observers_->notify(VELChange::Kind::kInsertion, false, connection);
  // A session that takes over a socket while the server drains comes too late for its round.
  if (draining_) connection->closeWhenIdle();
}

void VELServer::removeConnection(const std::shared_ptr<VELConnection>& connection) {
  observers_->notify(VELChange::Kind::kRemoval, true, connection);
  {
    const std::lock_guard lock(connections_mutex_);
    connections_.erase(connection);
    closing_.erase(connection);
  }
  observers_->notify(VELChange::Kind::kRemoval, false, connection);
  if (!draining_) return;
  queue_->async([weak = weak_from_this()] {
    if (const auto server = weak.lock()) server->endDrainIfEmpty();
  });
}

void VELServer::connectionDidClose(const std::shared_ptr<VELConnection>& connection) {
  if (g_debug.isOn()) {
    g_debug.line("Closing connection: \"", connection->identifier().UUIDString(), "\"");
  }
  removeConnection(connection);
}

void VELServer::socketDidAcceptNewSocket(VELSocket& /*socket*/,
                                         std::shared_ptr<VELSocket> newSocket) {
  // Accepted before a stop, told after it: letting it go closes it.
  if (!running_) return;
  auto connection = std::make_shared<VELHTTPConnection>(std::move(newSocket), shared_from_this());
  if (g_debug.isOn()) {
    g_debug.line("Accepting connection: \"", connection->identifier().UUIDString(), "\"");
  }
  addConnection(connection);
  connection->start();
}
