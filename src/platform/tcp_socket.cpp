#include "platform/tcp_socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/connector.h"
#include "platform/listener.h"
#include "platform/log.h"
#include "platform/queue_runner.h"
#include "platform/socket_address.h"
#include "platform/workspace.h"

namespace vel {
namespace {

// How long a closed connection goes on taking in what the peer sends.
constexpr MonotonicTime kLingerTime = 2'000'000'000;

}  // namespace

std::mutex& TcpSocket::queueMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

TcpSocket::TcpSocket(std::weak_ptr<VELSocketDelegate> delegate,
                     std::shared_ptr<VELSerialQueue> queue)
    : delegate_(std::move(delegate)), queue_(std::move(queue)) {
  setSourceQueue(queue_.get());
}

TcpSocket::TcpSocket(int fd, std::shared_ptr<VELSerialQueue> queue)
    : queue_(std::move(queue)), fd_(fd), state_(State::kOpen) {
  setSourceQueue(queue_.get());
}

TcpSocket::~TcpSocket() {
  Deadline::remove();
  if (extras_ && extras_->listener && !queue_->isCurrent()) {
    // Its ports may be accepting just now; they find that the socket is gone, and close there.
    queue_->async([listener = std::move(extras_->listener)] {});
  }
  const int fd = fd_.load(std::memory_order_relaxed);
  if (fd >= 0) ::close(fd);
}

TcpSocket::Extras& TcpSocket::extras() {
  if (!extras_) extras_ = std::make_unique<Extras>();
  return *extras_;
}

// This thread's hold on the socket; none when a call has to be posted. The queue is looked up first: who
// sees the new one sees the move, too.
QueueFrame* TcpSocket::holdingFrame() const noexcept {
  QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue());
  const bool is_moving = move_state_.load(std::memory_order_acquire) == MoveState::kUnderWay;
  return is_moving ? nullptr : frame;
}

// What nobody else keeps alive until the end of the turn is kept by the turn.
void TcpSocket::seeToTurnEnd(QueueFrame& frame) {
  if (is_serving_ || isListed()) return;
  // Once it has ended, `self_` belongs to the notice that is still on its way.
  if (state() == State::kEnded || !self_) frame.bury(shared_from_this());
  frame.listTurnEnd(*this);
}

// Runs `call` here when this thread holds the socket's queue, else posts it there.
template <class Call>
void TcpSocket::onQueue(Call&& call) {
  if (QueueFrame* frame = holdingFrame()) {
    call(*this);
    seeToTurnEnd(*frame);
  } else {
    postCall(std::forward<Call>(call));
  }
}

void TcpSocket::postCall(std::function<void(TcpSocket&)> call) {
  is_used_.store(true, std::memory_order_release);
  // Posted under the lock, so that calls that come before a change of queue run before it.
  std::lock_guard lock(queueMutex());
  if (move_) {
    move_->calls.push_back(std::move(call));
  } else {
    queue_->async([self = shared_from_this(), call = std::move(call)] { self->runCall(call); });
  }
}

void TcpSocket::runCall(const std::function<void(TcpSocket&)>& call) { onQueue(call); }

bool TcpSocket::acceptOnInterface(const std::optional<std::string>& interface, uint16_t port,
                                  VELError* error) {
  if (holdingFrame() == nullptr) {
    bool accepts = false;
    delegateQueue()->sync([&] { accepts = acceptOnInterface(interface, port, error); });
    return accepts;
  }
  if (state() != State::kUnused) {
    if (error)
      *error = VELError(VELSocketErrorDomain, kVELSocketBadConfiguration,
                        "The socket is in use already.");
    return false;
  }
  auto listener = std::make_shared<Listener>(weak_from_this());
  if (!listener->open(interface, port, queue_, error)) return false;
  is_used_.store(true, std::memory_order_release);
  std::lock_guard lock(queueMutex());
  extras().listener = std::move(listener);
  state_ = State::kListening;
  return true;
}

bool TcpSocket::connectToHost(const std::string& host, uint16_t port,
                              std::chrono::milliseconds timeout, VELError* error) {
  State unused = State::kUnused;
  const bool can_connect = !host.empty() && port != 0;
  const bool in_use = can_connect ? !state_.compare_exchange_strong(unused, State::kConnecting)
                                  : state() != State::kUnused;
  if (in_use || !can_connect) {
    if (error) {
      *error = in_use ? VELError(VELSocketErrorDomain, kVELSocketBadConfiguration,
                                 "The socket is in use already.")
                      : VELError(VELSocketErrorDomain, kVELSocketBadParameter,
                                 "A connection needs a host name and a port.");
    }
    return false;
  }
  is_used_.store(true, std::memory_order_release);
  onQueue([connector = std::make_shared<Connector>(shared_from_this(), host, port, timeout)](
              TcpSocket& socket) {
    if (socket.state() != State::kConnecting) return connector->cancel();
    socket.extras().connector = connector;
    connector->start();
  });
  return true;
}

void TcpSocket::readDataToData(const VELData& terminator, std::chrono::milliseconds timeout,
                               size_t maxLength, int64_t tag) {
  const VELData& crlf = CRLFData();
  const bool is_crlf = terminator.length() == crlf.length() &&
                       (terminator.bytes() == crlf.bytes() || terminator.view() == crlf.view());
  const ReadRequest request{maxLength, tag, timeout,
                            is_crlf ? ReadEnd::kCRLF : ReadEnd::kTerminator};
  if (is_crlf) {
    onQueue([request](TcpSocket& socket) { socket.addRead(request); });
    return;
  }
  onQueue([request, own = VELData(terminator)](TcpSocket& socket) {
    socket.extras().terminators.push_back(own);
    socket.addRead(request);
  });
}

void TcpSocket::readDataToLength(size_t length, std::chrono::milliseconds timeout, int64_t tag) {
  onQueue([=](TcpSocket& socket) { socket.addRead({length, tag, timeout, ReadEnd::kLength}); });
}

void TcpSocket::writeData(VELData data, std::chrono::milliseconds timeout, int64_t tag) {
  QueueFrame* frame = holdingFrame();
  if (frame == nullptr) {
    postCall([data = VELData(std::as_const(data)), timeout, tag](TcpSocket& socket) {
      socket.writeData(data, timeout, tag);
    });
    return;
  }
  const bool takes = state() == State::kOpen || state() == State::kConnecting;
  if (!takes || closes_after_writing_) return;
  if (!is_registered_ && !open()) return seeToTurnEnd(*frame);
  if (!outgoing_) {
    outgoing_ =
        frame->driven ? frame->thread.workspace().takeOutgoing() : std::make_unique<Outgoing>();
  }
  outgoing_->append(std::move(data), timeout, tag);
  seeToTurnEnd(*frame);
}

void TcpSocket::startTLS(const VELTLSSettings& settings) {
  onQueue([settings](TcpSocket& socket) { socket.beginTls(settings); });
}

void TcpSocket::disconnect() {
  if (state() == State::kListening) {
    const auto stop = [this] {
      std::shared_ptr<Listener> listener;
      {
        std::lock_guard lock(queueMutex());
        listener.swap(extras_->listener);
        if (listener) state_ = State::kUnused;
      }
      if (listener) listener->close();
    };
    queue_->isCurrent() ? stop() : queue_->sync(stop);
    return;
  }
  onQueue([](TcpSocket& socket) { socket.end(std::nullopt); });
}

void TcpSocket::disconnectAfterWriting() {
  if (state() == State::kListening) return disconnect();
  onQueue([](TcpSocket& socket) {
    if (socket.state() == State::kConnecting && !socket.outgoing_) return socket.end(std::nullopt);
    if (socket.state() != State::kOpen && socket.state() != State::kConnecting) return;
    socket.closes_after_writing_ = true;
    socket.dropReads();
  });
}

size_t TcpSocket::unsentLength() const {
  const size_t encrypted = tls_ ? tls_->output.size() - tls_->output_sent : 0;
  return encrypted + (outgoing_ ? outgoing_->unsent() : 0);
}

VELSocketAddress TcpSocket::localAddress() const {
  if (state() == State::kListening) {
    std::lock_guard lock(queueMutex());
    return extras_->listener ? extras_->listener->address() : VELSocketAddress{};
  }
  return localAddressOf(fd_.load());
}

VELSocketAddress TcpSocket::peerAddress() const { return peerAddressOf(fd_.load()); }

void TcpSocket::didAccept(int fd) {
  auto socket = std::make_shared<TcpSocket>(fd, queue_);
  if (const auto delegate = delegate_.lock())
    delegate->socketDidAcceptNewSocket(*this, std::move(socket));
}

void TcpSocket::didConnect(int fd, const std::string& host, uint16_t port) {
  const std::shared_ptr<Connector> keep = std::move(extras().connector);
  fd_ = fd;
  is_registered_ = true;
  is_writable_ = true;
  self_ = shared_from_this();
  state_ = State::kOpen;
  if (const auto delegate = delegate_.lock()) delegate->socketDidConnectToHost(*this, host, port);
}

void TcpSocket::didFailToConnect(VELError error) {
  const std::shared_ptr<Connector> keep = std::move(extras().connector);
  onQueue([error = std::move(error)](TcpSocket& socket) { socket.end(error); });
}

// Begins to watch the descriptor, at the first use of an accepted socket.
bool TcpSocket::open() {
  if (state() != State::kOpen) return state() == State::kConnecting;
  if (!QueueRunner::loopOf(*queue_).add(fd_, *this)) {
    end(VELError(VELPOSIXErrorDomain, errno, std::strerror(errno)));
    return false;
  }
  is_registered_ = true;
  is_used_.store(true, std::memory_order_release);
  self_ = shared_from_this();
  return true;
}

void TcpSocket::addRead(const ReadRequest& request) {
  if (closes_after_writing_ || (!is_registered_ && !open())) return;
  if (has_read_) {
    extras().further_reads.push_back(request);
    return;
  }
  read_ = request;
  has_read_ = true;
  scanned_ = 0;
}

void TcpSocket::beginTls(const VELTLSSettings& settings) {
  if (tls_ || (!is_registered_ && !open())) return;
  VELError error;
  auto tls = std::make_unique<Tls>();
  tls->session = TlsSession::create(settings, &error);
  is_secure_.store(true, std::memory_order_relaxed);
  if (!tls->session) return end(std::move(error));
  // What was written before goes out as it is, what was read ahead belongs to the handshake.
  if (outgoing_) outgoing_->copyTo(&tls->output);
  tls->plain_in_output = tls->output.size();
  tls->received = std::string(input_);
  tls->input = tls->received;
  input_ = {};
  kept_input_.reset();
  tls_ = std::move(tls);
  read_due_ = kNever;
}

// Ends the connection; the delegate is told at the end of the turn.
void TcpSocket::end(std::optional<VELError> error) {
  if (state() != State::kOpen && state() != State::kConnecting) return;
  if (connector() != nullptr) {
    connector()->cancel();
    extras_->connector.reset();
  }
  if (error) extras().end_error = std::move(error);
  owes_end_ = true;
  // Closing over bytes that were not read makes the system reset the connection, and the peer may lose
  // what was written last (RFC 9112 §9.6).
  const bool lingers = closes_after_writing_ && !error && is_registered_ && !hung_up_ &&
                       !peer_finished_ && (is_readable_ || !input_.empty());
  dropReads();
  outgoing_.reset();
  input_ = {};
  kept_input_.reset();
  Deadline::disarm();
  if (lingers) {
    shutdown(fd_, SHUT_WR);
    state_ = State::kLingering;
    read_due_ = coarseNow() + kLingerTime;
    Deadline::armAt(*queue_, read_due_);
    notify(kServe);
  } else {
    closeDescriptor();
  }
}

void TcpSocket::dropReads() {
  has_read_ = false;
  read_due_ = kNever;
  piece_.reset();
  if (!extras_) return;
  extras_->further_reads.clear();
  extras_->terminators.clear();
}

void TcpSocket::closeDescriptor() {
  state_ = State::kEnded;
  Deadline::remove();
  const int fd = fd_.exchange(-1);
  if (is_registered_) {
    // A copy of the descriptor would keep the registration alive.
    QueueRunner::loopOf(*queue_).remove(fd);
    is_registered_ = false;
  }
  if (fd >= 0) ::close(fd);
  // Events of this batch, the end of this turn and a notice on its way may all still name the socket.
  const std::shared_ptr<TcpSocket> keep = shared_from_this();
  if (QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue())) frame->bury(keep);
  self_ = keep;
  if (retire()) self_.reset();
}

void TcpSocket::didRetire(QueueFrame& frame) {
  if (self_) frame.bury(std::move(self_));
}

}  // namespace vel

std::shared_ptr<VELSocket> VELSocket::socketWithDelegate(
    std::weak_ptr<VELSocketDelegate> delegate, std::shared_ptr<VELSerialQueue> delegateQueue) {
  return std::make_shared<vel::TcpSocket>(std::move(delegate), std::move(delegateQueue));
}

const VELData& VELSocket::CRLFData() {
  static const auto* data = new VELData(VELData::dataWithStaticBytes("\r\n"));
  return *data;
}

void VELSocketDelegate::socketDidAcceptNewSocket(VELSocket&, std::shared_ptr<VELSocket>) {}
void VELSocketDelegate::socketDidConnectToHost(VELSocket&, const std::string&, uint16_t) {}
void VELSocketDelegate::socketDidReadData(VELSocket&, const VELData&, int64_t) {}
void VELSocketDelegate::socketDidWriteDataWithTag(VELSocket&, int64_t) {}
void VELSocketDelegate::socketDidSecure(VELSocket&) {}
void VELSocketDelegate::socketDidDisconnect(VELSocket&, const std::optional<VELError>&) {}
