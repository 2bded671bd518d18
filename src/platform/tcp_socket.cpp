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

// Guards which queue a socket belongs to. A leaf, taken only off the queue and when the queue changes.
std::mutex& queueMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

// How long a closed connection goes on taking in what the peer sends.
constexpr MonotonicTime kLingerTime = 2'000'000'000;

// The usual terminator, shared by all reads that use it.
const std::shared_ptr<const VELData>& sharedCRLF() {
  static const auto* data =
      new std::shared_ptr<const VELData>(std::make_shared<VELData>(VELSocket::CRLFData()));
  return *data;
}

}  // namespace

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
  const int fd = fd_.load(std::memory_order_relaxed);
  if (fd >= 0) ::close(fd);
}

TcpSocket::Extras& TcpSocket::extras() {
  if (!extras_) extras_ = std::make_unique<Extras>();
  return *extras_;
}

// This thread's hold on the socket; none when a call has to be posted.
QueueFrame* TcpSocket::holdingFrame() const noexcept {
  if (move_state_.load(std::memory_order_acquire) == MoveState::kUnderWay) return nullptr;
  return QueueFrame::heldByThisThread(sourceQueue());
}

// Runs `call` here when this thread holds the socket's queue, else posts it there.
template <class Call>
void TcpSocket::onQueue(Call&& call) {
  if (QueueFrame* frame = holdingFrame()) {
    call(*this);
    if (!is_serving_) frame->listTurnEnd(*this);
  } else {
    postCall(std::forward<Call>(call));
  }
}

void TcpSocket::postCall(std::function<void(TcpSocket&)> call) {
  std::shared_ptr<VELSerialQueue> queue;
  {
    std::lock_guard lock(queueMutex());
    if (move_) {
      move_->calls.push_back(std::move(call));
      return;
    }
    queue = queue_;
  }
  queue->async([self = shared_from_this(), call = std::move(call)] { self->runCall(call); });
}

void TcpSocket::runCall(const std::function<void(TcpSocket&)>& call) {
  onQueue(call);
}

bool TcpSocket::acceptOnInterface(const std::optional<std::string>& interface, uint16_t port,
                                  VELError* error) {
  if (state() != State::kUnused) {
    if (error) *error = VELError(VELSocketErrorDomain, kVELSocketBadConfiguration,
                                 "The socket is in use already.");
    return false;
  }
  auto listener = std::make_unique<Listener>(*this);
  if (!listener->open(interface, port, queue_, error)) return false;
  listener_ = std::move(listener);
  state_ = State::kListening;
  return true;
}

bool TcpSocket::connectToHost(const std::string& host, uint16_t port,
                              std::chrono::milliseconds timeout, VELError* error) {
  const bool in_use = state() != State::kUnused;
  if (in_use || host.empty() || port == 0) {
    if (error) {
      *error = in_use ? VELError(VELSocketErrorDomain, kVELSocketBadConfiguration,
                                 "The socket is in use already.")
                      : VELError(VELSocketErrorDomain, kVELSocketBadParameter,
                                 "A connection needs a host name and a port.");
    }
    return false;
  }
  state_ = State::kConnecting;
  connector_ = std::make_shared<Connector>(shared_from_this(), host, port, timeout);
  connector_->start();
  return true;
}

void TcpSocket::readDataToData(const VELData& terminator, std::chrono::milliseconds timeout,
                               size_t maxLength, int64_t tag) {
  ReadRequest request{maxLength, tag, timeout, nullptr};
  request.terminator = terminator.view() == CRLFData().view()
                           ? sharedCRLF()
                           : std::make_shared<const VELData>(terminator);
  onQueue([request = std::move(request)](TcpSocket& socket) { socket.addRead(request); });
}

void TcpSocket::readDataToLength(size_t length, std::chrono::milliseconds timeout, int64_t tag) {
  onQueue([=](TcpSocket& socket) { socket.addRead({length, tag, timeout, nullptr}); });
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
  if (!takes || closes_after_writing_ || !open()) return;
  if (!outgoing_) {
    outgoing_ = frame->driven ? frame->thread.workspace().takeOutgoing()
                              : std::make_unique<Outgoing>();
  }
  outgoing_->append(std::move(data), timeout, tag);
  if (!is_serving_) frame->listTurnEnd(*this);
}

void TcpSocket::startTLS(const VELTLSSettings& settings) {
  onQueue([settings](TcpSocket& socket) { socket.beginTls(settings); });
}

void TcpSocket::disconnect() {
  if (state() == State::kListening) {
    const auto stop = [this] {
      listener_.reset();
      state_ = State::kUnused;
    };
    queue_->isCurrent() ? stop() : queue_->sync(stop);
    return;
  }
  onQueue([](TcpSocket& socket) { socket.end(std::nullopt); });
}

void TcpSocket::disconnectAfterWriting() {
  if (state() == State::kListening) return disconnect();
  onQueue([](TcpSocket& socket) {
    if (socket.state() == State::kConnecting) return socket.end(std::nullopt);
    if (socket.state() == State::kOpen) socket.closes_after_writing_ = true;
  });
}

void TcpSocket::setDelegate(std::weak_ptr<VELSocketDelegate> delegate,
                            std::shared_ptr<VELSerialQueue> delegateQueue) {
  QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue());
  const bool is_started = is_registered_ || connector_ != nullptr || has_read_ || outgoing_ != nullptr;
  if (is_started && frame == nullptr) {
    this->delegateQueue()->sync([&] { setDelegate(std::move(delegate), std::move(delegateQueue)); });
    return;
  }
  std::lock_guard lock(queueMutex());
  if (!is_started || delegateQueue == queue_) {
    delegate_ = std::move(delegate);
    queue_ = std::move(delegateQueue);
    setSourceQueue(queue_.get());
    return;
  }
  // The present turn may be deep inside this socket: it goes over when the turn ends.
  delegate_.reset();
  if (!move_) move_ = std::make_unique<Move>();
  move_->delegate = std::move(delegate);
  move_->queue = std::move(delegateQueue);
  move_state_.store(MoveState::kAsked, std::memory_order_release);
  if (!is_serving_) frame->listTurnEnd(*this);
}

std::shared_ptr<VELSerialQueue> TcpSocket::delegateQueue() const {
  std::lock_guard lock(queueMutex());
  return move_ ? move_->queue : queue_;
}

size_t TcpSocket::unsentLength() const {
  const size_t encrypted = tls_ ? tls_->output.size() - tls_->output_sent : 0;
  return encrypted + (outgoing_ ? outgoing_->unsent() : 0);
}

VELSocketAddress TcpSocket::localAddress() const {
  if (state() == State::kListening) return listener_->address();
  return localAddressOf(fd_.load());
}

VELSocketAddress TcpSocket::peerAddress() const { return peerAddressOf(fd_.load()); }

void TcpSocket::didAccept(int fd) {
  const std::shared_ptr<VELSocketDelegate> delegate = delegate_.lock();
  auto socket = std::make_shared<TcpSocket>(fd, queue_);
  if (delegate) delegate->socketDidAcceptNewSocket(*this, std::move(socket));
}

void TcpSocket::didConnect(int fd, const std::string& host, uint16_t port) {
  const std::shared_ptr<Connector> keep = std::move(connector_);
  fd_ = fd;
  is_registered_ = true;
  is_writable_ = true;
  self_ = shared_from_this();
  state_ = State::kOpen;
  if (const auto delegate = delegate_.lock()) delegate->socketDidConnectToHost(*this, host, port);
}

void TcpSocket::didFailToConnect(VELError error) {
  const std::shared_ptr<Connector> keep = std::move(connector_);
  onQueue([&error](TcpSocket& socket) { socket.end(std::move(error)); });
}

// Begins to watch the descriptor, at the first use of an accepted socket.
bool TcpSocket::open() {
  if (is_registered_) return true;
  if (state() != State::kOpen) return state() == State::kConnecting;
  if (!QueueRunner::loopOf(*queue_).add(fd_, *this)) {
    end(VELError(VELPOSIXErrorDomain, errno, std::strerror(errno)));
    return false;
  }
  is_registered_ = true;
  self_ = shared_from_this();
  return true;
}

void TcpSocket::addRead(ReadRequest request) {
  if (closes_after_writing_ || !open()) return;
  if (has_read_) {
    extras().further_reads.push_back(std::move(request));
    return;
  }
  read_ = std::move(request);
  has_read_ = true;
  scanned_ = 0;
}

void TcpSocket::beginTls(const VELTLSSettings& settings) {
  if (tls_ || !open()) return;
  VELError error;
  auto tls = std::make_unique<Tls>();
  tls->session = TlsSession::create(settings, &error);
  is_secure_.store(true, std::memory_order_relaxed);
  if (!tls->session) return end(std::move(error));
  // What was written before goes out as it is, what was read ahead belongs to the handshake.
  if (outgoing_) {
    iovec vectors[Outgoing::kMostVectors];
    const int count = outgoing_->vectors(vectors, Outgoing::kMostVectors);
    for (int i = 0; i < count; ++i) {
      tls->output.append(static_cast<const char*>(vectors[i].iov_base), vectors[i].iov_len);
    }
    tls->plain_in_output = tls->output.size();
  }
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
  if (connector_) connector_->cancel();
  connector_.reset();
  if (error) extras().end_error = std::move(error);
  owes_end_ = true;
  // Closing over bytes that were not read makes the system reset the connection, and the peer may lose
  // what was written last (RFC 9112 §9.6).
  const bool lingers = closes_after_writing_ && !error && is_registered_ && !hung_up_ &&
                       !peer_finished_ && (is_readable_ || !input_.empty());
  has_read_ = false;
  if (extras_) extras_->further_reads.clear();
  outgoing_.reset();
  piece_.reset();
  input_ = {};
  kept_input_.reset();
  read_due_ = kNever;
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

void TcpSocket::closeDescriptor() {
  state_ = State::kEnded;
  Deadline::remove();
  const int fd = fd_.exchange(-1);
  if (is_registered_) {
    // A copy of the descriptor would keep the registration alive.
    QueueRunner::loopOf(*queue_).remove(fd);
    is_registered_ = false;
    if (retire()) bury();
  }
  if (fd >= 0) ::close(fd);
}

void TcpSocket::bury() {
  if (QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue())) {
    frame->bury(std::move(self_));
  }
}

void TcpSocket::didRetire(QueueFrame& frame) {
  if (self_) frame.bury(std::move(self_));
}

// Takes the socket to its new queue, as the last thing of a turn on the old one.
void TcpSocket::finishMove(QueueFrame& frame) {
  flush();
  Deadline::remove();
  EventLoop& from = QueueRunner::loopOf(*queue_);
  EventLoop& to = QueueRunner::loopOf(*move_->queue);
  const bool changes_loop = &from != &to && is_registered_;
  if (changes_loop) from.remove(fd_);
  std::shared_ptr<TcpSocket> keep = shared_from_this();
  {
    std::lock_guard lock(queueMutex());
    frame.bury(std::move(queue_));
    queue_ = move_->queue;
    delegate_ = move_->delegate;
    move_state_.store(MoveState::kUnderWay, std::memory_order_release);
    setSourceQueue(queue_.get());
  }
  if (changes_loop) to.add(fd_, *this);
  keep->notify(kServe);
}

// Makes the calls that came from other threads while the socket moved, the first thing on its new queue.
void TcpSocket::runMovedCalls() {
  move_state_.store(MoveState::kArriving, std::memory_order_release);
  while (true) {
    std::vector<std::function<void(TcpSocket&)>> calls;
    {
      std::lock_guard lock(queueMutex());
      calls.swap(move_->calls);
      if (calls.empty()) {
        move_.reset();
        move_state_.store(MoveState::kNone, std::memory_order_release);
        return;
      }
    }
    for (const auto& call : calls) call(*this);
  }
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
