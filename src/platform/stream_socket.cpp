#include "platform/stream_socket.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/connector.h"
#include "platform/log.h"
#include "platform/queue_runner.h"
#include "platform/workspace.h"

namespace vel {
namespace {

// How long a closed connection goes on taking in what the peer sends.
constexpr MonotonicTime kLingerTime = 2'000'000'000;
// Larger writes of a head and data are not copied to leave with others: they leave at once.
constexpr size_t kGatheredWrite = 8 * 1024;
// So do all that have been gathered when there are more: the rest would have to wait one by one.
constexpr size_t kMostGathered = 48 * 1024;

}  // namespace

std::mutex& StreamSocket::queueMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

StreamSocket::StreamSocket(std::weak_ptr<VELSocketDelegate> delegate,
                           std::shared_ptr<VELSerialQueue> queue, State state)
    : delegate_(std::move(delegate)), queue_(std::move(queue)), state_(state) {
  setSourceQueue(queue_.get());
}

StreamSocket::~StreamSocket() { Deadline::remove(); }

StreamSocket::Extras& StreamSocket::extras() {
  if (!extras_) extras_ = std::make_unique<Extras>();
  return *extras_;
}

// What nobody else keeps alive until the end of the turn is kept by the turn.
void StreamSocket::listForTurnEnd(QueueFrame& frame) {
  // Once it has ended, `self_` belongs to the notice that is still on its way.
  if (state() == State::kEnded || !self_) frame.bury(shared_from_this());
  frame.listTurnEnd(*this);
}

void StreamSocket::postCall(std::function<void(StreamSocket&)> call) {
  is_used_.store(true, std::memory_order_release);
  // Posted under the lock, so that calls that come before a change of queue run before it.
  std::lock_guard lock(queueMutex());
  if (move_) {
    move_->calls.push_back(std::move(call));
  } else {
    queue_->async([self = shared_from_this(), call = std::move(call)] { self->runCall(call); });
  }
}

void StreamSocket::runCall(const std::function<void(StreamSocket&)>& call) { onQueue(call); }

void StreamSocket::readDataToData(const VELData& terminator, std::chrono::milliseconds timeout,
                                  size_t maxLength, int64_t tag) {
  const VELData& crlf = CRLFData();
  const bool is_crlf = terminator.length() == crlf.length() &&
                       (terminator.bytes() == crlf.bytes() || terminator.view() == crlf.view());
  const ReadRequest request{maxLength, tag, timeout,
                            is_crlf ? ReadEnd::kCRLF : ReadEnd::kTerminator};
  if (is_crlf) {
    onQueue([request](StreamSocket& socket) { socket.addRead(request); });
    return;
  }
  onQueue([request, own = VELData(terminator)](StreamSocket& socket) {
    socket.extras().terminators.push_back(own);
    socket.addRead(request);
  });
}

void StreamSocket::readDataToLength(size_t length, std::chrono::milliseconds timeout, int64_t tag) {
  onQueue([=](StreamSocket& socket) { socket.addRead({length, tag, timeout, ReadEnd::kLength}); });
}

void StreamSocket::waitForInput(size_t length, std::chrono::milliseconds timeout, int64_t tag) {
  const ReadRequest request{length, tag, timeout, ReadEnd::kWait};
  onQueue([request](StreamSocket& socket) { socket.addRead(request); });
}

void StreamSocket::writeData(VELData data, std::chrono::milliseconds timeout, int64_t tag) {
  QueueFrame* frame = holdingFrame();
  if (frame == nullptr) {
    postCall([data = VELData(std::as_const(data)), timeout, tag](StreamSocket& socket) {
      socket.writeData(data, timeout, tag);
    });
    return;
  }
  if (!beginWrite(*frame)) return;
  outgoing_->append(std::move(data), timeout, tag);
  seeToTurnEnd(*frame);
}

void StreamSocket::writeHeadAndData(std::string_view head, const VELData& data,
                                    std::chrono::milliseconds timeout, int64_t tag) {
  QueueFrame* frame = holdingFrame();
  if (frame == nullptr) return VELSocket::writeHeadAndData(head, data, timeout, tag);
  if (frame->driven && addToBurst(frame->thread.workspace(), head, data, timeout)) {
    return seeToTurnEnd(*frame);
  }
  if (!beginWrite(*frame)) return;
  seeToTurnEnd(*frame);
  const bool can_send = frame->driven && is_writable_ && state() == State::kOpen;
  if (!can_send || head.size() + data.length() <= kGatheredWrite) {
    outgoing_->append(head, data, timeout);
    if (can_send && outgoing_->unsent() > kMostGathered) flush();
    return;
  }
  outgoing_->appendLent(head, data, timeout);
  flush();
  if (outgoing_) outgoing_->keepLent();
}

// Sees to it that there is a place for what is to be written; false when nothing can be.
bool StreamSocket::beginWrite(QueueFrame& frame) {
  const bool takes = state() == State::kOpen || state() == State::kConnecting;
  if (!takes || closes_after_writing_) return false;
  if (has_burst_) settleBurst();
  if (!is_registered_ && !open()) {
    seeToTurnEnd(frame);
    return false;
  }
  if (outgoing_) return true;
  outgoing_ = frame.driven ? frame.thread.workspace().takeOutgoing() : std::make_unique<Outgoing>();
  return true;
}

void StreamSocket::startTLS(const VELTLSSettings& settings) {
  onQueue([settings](StreamSocket& socket) { socket.beginTls(settings); });
}

void StreamSocket::disconnect() {
  if (state() == State::kListening) return stopListening();
  onQueue([](StreamSocket& socket) { socket.end(std::nullopt); });
}

void StreamSocket::disconnectAfterWriting() {
  if (state() == State::kListening) return disconnect();
  onQueue([](StreamSocket& socket) {
    if (socket.state() == State::kConnecting && !socket.outgoing_) return socket.end(std::nullopt);
    if (socket.state() != State::kOpen && socket.state() != State::kConnecting) return;
    socket.closes_after_writing_ = true;
    socket.dropReads();
  });
}

void StreamSocket::expectUnreadInput() {
  onQueue([](StreamSocket& socket) { socket.expects_unread_input_ = true; });
}

void StreamSocket::setEndsWithPeer(bool endsWithPeer) {
  onQueue([endsWithPeer](StreamSocket& socket) { socket.ends_with_peer_ = endsWithPeer; });
}

size_t StreamSocket::unsentLength() const {
  if (has_burst_) return ThreadRecord::current().workspace().burst().bytes.size();
  const size_t encrypted = tls_ ? tls_->output.size() - tls_->output_sent : 0;
  return encrypted + (outgoing_ ? outgoing_->unsent() : 0);
}

void StreamSocket::didOpen() {
  is_registered_ = true;
  is_writable_ = true;
  is_used_.store(true, std::memory_order_release);
  self_ = shared_from_this();
  state_ = State::kOpen;
}

// Begins to watch the transport, at the first use of an accepted socket.
bool StreamSocket::open() {
  if (state() != State::kOpen) return state() == State::kConnecting;
  if (!watch(QueueRunner::loopOf(*queue_))) {
    end(VELError(VELPOSIXErrorDomain, errno, std::strerror(errno)));
    return false;
  }
  didOpen();
  return true;
}

void StreamSocket::addRead(const ReadRequest& request) {
  if (closes_after_writing_ || (!is_registered_ && !open())) return;
  if (has_read_) {
    extras().further_reads.push_back(request);
    return;
  }
  read_ = request;
  has_read_ = true;
  scanned_ = 0;
}

void StreamSocket::beginTls(const VELTLSSettings& settings) {
  if (tls_ || (!is_registered_ && !open())) return;
  if (has_burst_) settleBurst();
  VELError error;
  auto tls = std::make_unique<Tls>();
  tls->session = TlsSession::create(settings, &error);
  is_secure_.store(true, std::memory_order_relaxed);
  if (!tls->session) return end(std::move(error));
  // What was written before goes out as it is, what was read ahead belongs to the handshake.
  if (outgoing_) outgoing_->copyTo(&tls->output);
  tls->slices.push_back({tls->output.size(), tls->output.size()});
  tls->received = std::string(input_);
  tls->input = tls->received;
  input_ = {};
  kept_input_.reset();
  tls_ = std::move(tls);
  read_due_ = kNever;
}

// Ends the connection; the delegate is told at the end of the turn.
void StreamSocket::end(std::optional<VELError> error) {
  if (state() != State::kOpen && state() != State::kConnecting) return;
  // Small writes have been told as written: whoever closes now can rely on their being on the way. A failure
  // of this last attempt ends the connection from within.
  if (!is_ending_ && is_registered_ && !hung_up_ && !isHandshaking() && hasUnsent()) {
    is_ending_ = true;
    flush();
    if (state() != State::kOpen) return;
  }
  if (connector() != nullptr) {
    connector()->cancel();
    extras_->connector.reset();
  }
  if (error) extras().end_error = std::move(error);
  owes_end_ = true;
  // Closing over bytes that were not read makes the system reset the connection, and the peer may lose
  // what was written last (RFC 9112 §9.6).
  const bool may_be_unread =
      is_readable_ || (!peer_finished_ && (expects_unread_input_ || !input_.empty()));
  const bool lingers =
      closes_after_writing_ && is_registered_ && !hung_up_ && may_be_unread && !hasUnsent();
  dropReads();
  if (has_burst_) settleBurst(std::string::npos);
  outgoing_.reset();
  input_ = {};
  // A callback may still be looking at them.
  if (!is_serving_) kept_input_.reset();
  Deadline::disarm();
  if (lingers) {
    finishSending();
    state_ = State::kLingering;
    read_due_ = coarseNow() + kLingerTime;
    Deadline::armAt(*queue_, read_due_);
    notify(kServe);
  } else {
    closeNow();
  }
}

// What counts as written already still goes out.
void StreamSocket::endAfterWriting(VELError error) {
  closes_after_writing_ = true;
  dropReads();
  extras().end_error = std::move(error);
}

void StreamSocket::dropReads() {
  has_read_ = false;
  read_due_ = kNever;
  piece_.reset();
  if (!extras_) return;
  extras_->further_reads.clear();
  extras_->terminators.clear();
}

void StreamSocket::closeNow() {
  state_ = State::kEnded;
  Deadline::remove();
  if (is_registered_) stopWatching(QueueRunner::loopOf(*queue_));
  is_registered_ = false;
  closeTransport();
  // Events of this batch, the end of this turn and a notice on its way may all still name the socket.
  const std::shared_ptr<StreamSocket> keep = shared_from_this();
  if (QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue())) frame->bury(keep);
  self_ = keep;
  if (retire()) self_.reset();
}

void StreamSocket::didRetire(QueueFrame& frame) {
  if (self_) frame.bury(std::move(self_));
}

}  // namespace vel

void VELSocket::writeHeadAndData(std::string_view head, const VELData& data,
                                 std::chrono::milliseconds timeout, int64_t tag) {
  if (head.empty()) return writeData(data, timeout, tag);
  std::string joined(head);
  joined += data.view();
  writeData(VELData(std::move(joined)), timeout, tag);
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
