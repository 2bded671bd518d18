// The client's side of the opening handshake: one object for each open, and the set of those under way.
#include "websocket/web_socket_factory.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "websocket/opening_handshake.h"

namespace vel {
namespace {

constexpr int64_t kHandshakeTag = 1;

const VELData& endOfHead() {
  static const VELData end = VELData::dataWithStaticBytes("\r\n\r\n");
  return end;
}

uint16_t portOf(const VELURL& url) {
  if (const uint16_t port = url.port().value_or(0)) return port;
  const std::string scheme = url.scheme();
  return scheme == "https" || scheme == "wss" ? 443 : 80;
}

}  // namespace

/// One WebSocket that is being opened: its socket, what to ask, and who waits for it.
///
/// | Event                     | The handler is told               |
/// |---------------------------|-----------------------------------|
/// | an answer of 101 or 200   | the session                       |
/// | another answer            | `VELURLErrorDomain`, -1011        |
/// | a cancellation            | `VELCocoaErrorDomain`, 3072       |
/// | the socket's disconnect   | the socket's error, if it has one |
///
/// Meant so: more than one of these can happen. The disconnect that a cancellation causes is told as well,
/// unless a session has the socket by then, and a cancellation finds the handler whatever happened before.
/// No TLS is started: the scheme chooses the port, and nothing else.
///
/// Owner:   the factory until the answer has been read; the handler of the progress; itself from a
///          cancellation to the disconnect that follows.
/// Queue:   that of the open.
class PendingOpen final : public VELSocketDelegate,
                          public std::enable_shared_from_this<PendingOpen> {
 public:
  PendingOpen(VELURLRequest request, std::shared_ptr<VELSerialQueue> queue,
              VELWebSocket::CompletionHandler handler)
      : request_(std::move(request)), queue_(std::move(queue)), handler_(std::move(handler)) {}
  PendingOpen(const PendingOpen&) = delete;
  PendingOpen& operator=(const PendingOpen&) = delete;
  /// A connection whose answer was refused has nobody else.
  ~PendingOpen() override {
    if (awaits_disconnect_) socket_->disconnect();
  }

  /// Begins to connect.
  /// Errors:  false, with `error` set, when it cannot begin.
  /// Queue:   the caller's.
  bool start(VELError* error) {
    socket_ = VELSocket::socketWithDelegate(weak_from_this(), queue_);
    awaits_disconnect_ = true;
    if (socket_->connectToHost(request_.URL().host(), portOf(request_.URL()),
                               request_.timeoutInterval(), error)) {
      return true;
    }
    awaits_disconnect_ = false;
    return false;
  }

  /// Queue:   any.
  void cancel() {
    queue_->async([open = shared_from_this()] { open->cancelOnQueue(); });
  }

  void tell(std::shared_ptr<VELWebSocket> session, const std::optional<VELError>& error) const {
    if (handler_) handler_(std::move(session), error);
  }

  void socketDidConnectToHost(VELSocket& socket, const std::string& host,
                              uint16_t /*port*/) override {
    try {
      socket.writeData(upgradeRequest(request_, host).messageData(), request_.timeoutInterval(),
                       kHandshakeTag);
    } catch (...) {
      socket.disconnect();
      throw;
    }
    socket.readDataToData(endOfHead(), request_.timeoutInterval(), kLongestUpgradeAnswer,
                          kHandshakeTag);
  }

  void socketDidReadData(VELSocket& /*socket*/, const VELData& data, int64_t tag) override {
    if (tag != kHandshakeTag) return;
    const std::shared_ptr<PendingOpen> keep = shared_from_this();
    VELWebSocketFactory::sharedFactory().remove(keep);
    const UpgradeAnswer answer = parseUpgradeAnswer(data.view());
    if (!answer.isAccepted) {
      tell(nullptr, VELError(VELURLErrorDomain, kVELURLErrorBadServerResponse));
      return;
    }
    awaits_disconnect_ = false;
    tell(VELWebSocket::webSocketWithSocket(socket_, answer.protocol, queue_, false), std::nullopt);
  }

  void socketDidDisconnect(VELSocket& /*socket*/, const std::optional<VELError>& error) override {
    const std::shared_ptr<PendingOpen> keep = shared_from_this();
    held_until_disconnect_.reset();
    awaits_disconnect_ = false;
    VELWebSocketFactory::sharedFactory().remove(keep);
    tell(nullptr, error);
  }

 private:
  void cancelOnQueue() {
    if (awaits_disconnect_) held_until_disconnect_ = shared_from_this();
    VELWebSocketFactory::sharedFactory().remove(shared_from_this());
    socket_->disconnect();
    tell(nullptr, VELError(VELCocoaErrorDomain, VELUserCancelledError));
  }

  const VELURLRequest request_;
  const std::shared_ptr<VELSerialQueue> queue_;
  const VELWebSocket::CompletionHandler handler_;
  std::shared_ptr<VELSocket> socket_;
  // Whether the end of the socket will be told to this object.
  bool awaits_disconnect_ = false;
  std::shared_ptr<PendingOpen> held_until_disconnect_;
};

}  // namespace vel

VELWebSocketFactory& VELWebSocketFactory::sharedFactory() {
  // Never destroyed: loops go on as long as the process does.
  static auto* const factory = new VELWebSocketFactory;
  return *factory;
}

std::shared_ptr<VELProgress> VELWebSocketFactory::openWebSocketWithRequest(
    const VELURLRequest& request, std::shared_ptr<VELSerialQueue> delegateQueue,
    VELWebSocket::CompletionHandler completionHandler) {
  const auto open = std::make_shared<vel::PendingOpen>(request, std::move(delegateQueue),
                                                       std::move(completionHandler));
  const auto progress = VELProgress::discreteProgress(-1);
  // Before it starts, since it may end at once.
  add(open);
  VELError error;
  if (!open->start(&error)) {
    remove(open);
    open->tell(nullptr, error);
    progress->cancel();
  }
  progress->setCancellationHandler([open] { open->cancel(); });
  return progress;
}

void VELWebSocketFactory::add(const std::shared_ptr<vel::PendingOpen>& open) {
  const std::lock_guard lock(mutex_);
  opens_.insert(open);
}

void VELWebSocketFactory::remove(const std::shared_ptr<vel::PendingOpen>& open) {
  const std::lock_guard lock(mutex_);
  opens_.erase(open);
}

std::shared_ptr<VELProgress> VELWebSocket::openWebSocketWithURL(
    const VELURL& URL, const std::vector<std::string>& protocols,
    std::shared_ptr<VELSerialQueue> delegateQueue, CompletionHandler completionHandler) {
  VELURLRequest request(URL);
  for (const std::string& protocol : protocols) {
    request.addValueForHTTPHeaderField(protocol, "Sec-WebSocket-Protocol");
  }
  return openWebSocketWithRequest(request, std::move(delegateQueue), std::move(completionHandler));
}

std::shared_ptr<VELProgress> VELWebSocket::openWebSocketWithRequest(
    const VELURLRequest& request, std::shared_ptr<VELSerialQueue> delegateQueue,
    CompletionHandler completionHandler) {
  if (!delegateQueue) delegateQueue = std::make_shared<VELSerialQueue>("org.corvane.WebSocket");
  return VELWebSocketFactory::sharedFactory().openWebSocketWithRequest(
      request, std::move(delegateQueue), std::move(completionHandler));
}
