// The life of a session before its end: how it is made and started, and what can be asked of it.
#include "corvane/web_socket.h"

#include <utility>

#include "corvane/server.h"
#include "platform/queue_runner.h"
#include "websocket/session.h"

namespace {

constexpr char kQueueLabel[] = "org.corvane.WebSocket";

std::shared_ptr<VELSerialQueue> queueFor(const std::shared_ptr<VELSerialQueue>& given,
                                         const VELSocket& socket) {
  if (given) return given;
  // The same loop goes on watching the socket.
  const std::shared_ptr<VELSerialQueue> present = socket.delegateQueue();
  if (!present) return std::make_shared<VELSerialQueue>(kQueueLabel);
  return vel::QueueRunner::makeQueue(kQueueLabel, vel::QueueRunner::loopOf(*present));
}

std::unique_ptr<const std::string> kept(std::optional<std::string> text) {
  return text ? std::make_unique<const std::string>(std::move(*text)) : nullptr;
}

// Holds a lock that is a single flag. Whoever has it lets go of it at once.
class FlagLock {
 public:
  explicit FlagLock(std::atomic<bool>& flag) noexcept : flag_(flag) {
    while (flag_.exchange(true, std::memory_order_acquire)) {
    }
  }
  FlagLock(const FlagLock&) = delete;
  FlagLock& operator=(const FlagLock&) = delete;
  ~FlagLock() { flag_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool>& flag_;
};

}  // namespace

void VELWebSocketDelegate::webSocketDidCloseWithError(VELWebSocket&, const VELError&) {}

VELWebSocket::VELWebSocket() : is_server_socket_(false), owns_queue_(false) {
  throw VELException(VELInvalidArgumentException, "WebSockets should not be initialized directly");
}

VELWebSocket::VELWebSocket(std::shared_ptr<VELSocket> socket, std::optional<std::string> protocol,
                           std::shared_ptr<VELSerialQueue> delegateQueue, bool isServerSocket)
    : socket_(std::move(socket)),
      queue_(queueFor(delegateQueue, *socket_)),
      identifier_(VELUUID::UUID()),
      protocol_(kept(std::move(protocol))),
      is_server_socket_(isServerSocket),
      owns_queue_(delegateQueue == nullptr) {
  queue_->setSpecific(this, this);
}

std::shared_ptr<VELWebSocket> VELWebSocket::webSocketWithSocket(
    std::shared_ptr<VELSocket> socket, std::optional<std::string> protocol,
    std::shared_ptr<VELSerialQueue> delegateQueue, bool isServerSocket) {
  auto session = std::make_shared<VELWebSocket>(std::move(socket), std::move(protocol),
                                                std::move(delegateQueue), isServerSocket);
  session->attach();
  return session;
}

VELWebSocket::~VELWebSocket() {
  if (queue_) queue_->setSpecific(this, nullptr);
  // Nobody can send or receive any more; what was sent before still goes out.
  if (is_attached_ && state() != VELWebSocketState::kClosed) socket_->disconnectAfterWriting();
}

void VELWebSocket::attach() {
  if (is_attached_.exchange(true)) return;
  if (owns_queue_) vel::QueueRunner::setLastResort(*queue_, weak_from_this());
  socket_->setDelegate(weak_from_this(), queue_);
}

void VELWebSocket::start() {
  attach();
  if (is_started_.exchange(true)) return;
  socket_->waitForInput(2, vel::kNoTimeout, vel::kSessionTag);
  // Either the end sees that the session was started, or this sees the end.
  if (state_.load() == VELWebSocketState::kClosed) {
    queue_->async([self = shared_from_this()] { self->tellEndThatNobodyHeard(); });
  }
}

std::optional<std::string> VELWebSocket::protocol() const {
  return protocol_ ? std::optional(*protocol_) : std::nullopt;
}

std::shared_ptr<VELSocket> VELWebSocket::socket() const {
  return state() == VELWebSocketState::kClosed ? nullptr : socket_;
}

bool VELWebSocket::isSecure() const { return socket_->isSecure(); }

VELSocketAddress VELWebSocket::peerAddress() const {
  const std::shared_ptr<VELSocket> present = socket();
  return present ? present->peerAddress() : VELSocketAddress();
}

std::shared_ptr<VELServer> VELWebSocket::server() const { return server_.lock(); }

std::shared_ptr<VELWebSocketDelegate> VELWebSocket::delegate() const {
  const FlagLock lock(delegate_lock_);
  return delegate_.lock();
}

void VELWebSocket::setDelegate(std::weak_ptr<VELWebSocketDelegate> delegate) {
  {
    const FlagLock lock(delegate_lock_);
    delegate_.swap(delegate);
  }
  delegate_changed_.store(true, std::memory_order_release);
}
