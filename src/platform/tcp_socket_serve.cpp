// TcpSocket, the end of a turn: completions are told and reads served out of what has come, in a loop, and
// what was written leaves together.
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/connector.h"
#include "platform/queue_runner.h"
#include "platform/tcp_socket.h"
#include "platform/workspace.h"

namespace vel {
namespace {

// Receives in one turn; a peer that sends without end lets the others have theirs.
constexpr int kReceivesPerTurn = 8;
// A handshake's time (RFC 8446 leaves it to the application).
constexpr MonotonicTime kHandshakeTime = 30'000'000'000;
// A read of a length beyond this is gathered in a buffer of its own.
constexpr size_t kPieceFrom = Workspace::kReceive / 2;

}  // namespace

void TcpSocket::handleReadiness(uint32_t readiness, QueueFrame& frame) {
  if (readiness & kReadable) is_readable_ = true;
  if (readiness & kWritable) is_writable_ = true;
  if (readiness & kPeerFinished) peer_finished_ = true;
  if (readiness & kHungUp) hung_up_ = true;
  frame.listTurnEnd(*this);
}

void TcpSocket::turnWillEnd(QueueFrame& frame) {
  // The delegate may let go of the last reference meanwhile.
  const std::shared_ptr<TcpSocket> keep = is_registered_ ? nullptr : shared_from_this();
  if (move_state_.load(std::memory_order_relaxed) == MoveState::kUnderWay) runMovedCalls();
  if (move_state_.load(std::memory_order_relaxed) == MoveState::kNone) {
    if (!frame.driven && is_registered_) {
      // The caller of a `sync` owns no buffers: the loop goes on from here.
      notify(kServe);
    } else {
      serve(frame);
    }
  }
  if (move_state_.load(std::memory_order_relaxed) == MoveState::kAsked) finishMove(frame);
}

void TcpSocket::serve(QueueFrame& frame) {
  Workspace& workspace = frame.thread.workspace();
  // What a callback throws leaves the socket as it stands, to be served again.
  struct Serving {
    TcpSocket& socket;
    explicit Serving(TcpSocket& served) : socket(served) { socket.is_serving_ = true; }
    ~Serving() {
      socket.is_serving_ = false;
      socket.keepInput();
    }
  } serving(*this);

  if (state() == State::kConnecting && connector_) {
    const std::shared_ptr<Connector> connector = connector_;
    const bool is_writable = is_writable_;
    const bool has_failed = hung_up_;
    hung_up_ = false;
    is_writable_ = false;
    connector->handleReadiness(is_writable, has_failed);
  }
  if (state() == State::kLingering) linger(workspace);
  if (state() == State::kOpen) {
    const std::shared_ptr<VELSocketDelegate> delegate = delegate_.lock();
    if (!delegate) {
      end(std::nullopt);
    } else {
      int receives = 0;
      while (state() == State::kOpen && move_state_.load(std::memory_order_relaxed) == MoveState::kNone) {
        if (serveOnce(*delegate, workspace)) continue;
        if (!has_read_ && !isHandshaking()) break;
        const bool may_have_more = is_readable_ || (tls_ && tls_->may_have_more);
        if (closes_after_writing_ || !may_have_more) break;
        if (++receives > kReceivesPerTurn) {
          notify(kServe);
          break;
        }
        if (!receive(workspace)) break;
      }
    }
  }
  if (move_state_.load(std::memory_order_relaxed) != MoveState::kNone) return;
  if (state() == State::kOpen) finishWriting();
  if (state() == State::kOpen && hung_up_ && !has_read_) {
    end(VELError(VELSocketErrorDomain, kVELSocketClosed, "The peer closed the connection."));
  }
  if (outgoing_ && outgoing_->isEmpty()) {
    workspace.giveBack(std::move(outgoing_));
  } else if (outgoing_) {
    outgoing_->shrink();
  }
  armDeadlines();
  if (owes_end_) tellEnd();
}

// Tells one completion or serves one read; else lets what was written go. False when nothing is left to
// do with what has come.
bool TcpSocket::serveOnce(VELSocketDelegate& delegate, Workspace& workspace) {
  if (tls_ && !tls_->told_secure && tls_->session->isHandshakeDone()) {
    tls_->told_secure = true;
    read_due_ = kNever;
    delegate.socketDidSecure(*this);
    return true;
  }
  if (outgoing_ && outgoing_->hasDone()) {
    delegate.socketDidWriteDataWithTag(*this, outgoing_->takeDone());
    return true;
  }
  if (has_read_ && !closes_after_writing_ && serveRead(delegate, workspace)) return true;
  if (unsentLength() == 0 || !is_writable_) return false;
  flush();
  return state() == State::kOpen && outgoing_ && outgoing_->hasDone();
}

bool TcpSocket::serveRead(VELSocketDelegate& delegate, Workspace& workspace) {
  if (!read_.terminator) {
    if (piece_) {
      if (piece_->filled < read_.length) return false;
      const std::unique_ptr<Piece> piece = std::move(piece_);
      input_ = {reinterpret_cast<const char*>(piece->bytes.get()), piece->filled};
      deliver(delegate, piece->filled);
      workspace.giveBack(std::move(piece->bytes), piece->filled);
      return true;
    }
    if (input_.size() < read_.length) return false;
    deliver(delegate, read_.length);
    return true;
  }
  const std::string_view terminator = read_.terminator->view();
  const size_t limit = read_.length == 0 ? input_.size() : std::min<size_t>(read_.length, input_.size());
  const size_t found = input_.substr(0, limit).find(terminator, scanned_);
  if (found != std::string_view::npos) {
    deliver(delegate, found + terminator.size());
    return true;
  }
  if (read_.length != 0 && input_.size() >= read_.length) {
    end(VELError(VELSocketErrorDomain, kVELSocketReadMaximumReached,
                 "The peer sent too much before the expected end."));
    return false;
  }
  scanned_ = static_cast<uint32_t>(limit + 1 > terminator.size() ? limit + 1 - terminator.size() : 0);
  return false;
}

// Hands the first `length` bytes of the input to the delegate.
void TcpSocket::deliver(VELSocketDelegate& delegate, size_t length) {
  const VELData data = VELData::dataWithBorrowedBytes(input_.data(), length);
  const int64_t tag = read_.tag;
  input_.remove_prefix(length);
  has_read_ = false;
  scanned_ = 0;
  read_due_ = kNever;
  if (extras_ && !extras_->further_reads.empty()) {
    read_ = std::move(extras_->further_reads.front());
    extras_->further_reads.pop_front();
    has_read_ = true;
  }
  delegate.socketDidReadData(*this, data, tag);
}

// Gets more bytes behind those at hand. False when none come now.
bool TcpSocket::receive(Workspace& workspace) {
  size_t length = 0;
  Fill result = Fill::kWouldBlock;
  if (has_read_ && !read_.terminator && read_.length > kPieceFrom && read_.length > input_.size()) {
    if (!piece_) {
      piece_ = std::make_unique<Piece>();
      piece_->bytes = workspace.takePiece(read_.length);
      piece_->filled = input_.size();
      std::copy(input_.begin(), input_.end(), piece_->bytes.get());
      input_ = {};
    }
    result = fill(piece_->bytes.get() + piece_->filled, read_.length - piece_->filled, &length, workspace);
    piece_->filled += length;
  } else {
    std::vector<uint8_t>& buffer = workspace.input();
    const size_t kept = input_.size();
    if (buffer.size() < kept + Workspace::kReceive / 2) {
      std::vector<uint8_t> larger(2 * kept + Workspace::kReceive);
      std::copy(input_.begin(), input_.end(), larger.begin());
      buffer.swap(larger);
    } else if (kept > 0) {
      std::memmove(buffer.data(), input_.data(), kept);
    }
    result = fill(buffer.data() + kept, buffer.size() - kept, &length, workspace);
    input_ = {reinterpret_cast<const char*>(buffer.data()), kept + length};
  }
  if (result == Fill::kEnd) {
    // What was answered still goes out; a peer may close its direction first (RFC 9112 §9.6).
    closes_after_writing_ = true;
    has_read_ = false;
    extras().end_error =
        VELError(VELSocketErrorDomain, kVELSocketClosed, "The peer closed the connection.");
  }
  return result == Fill::kGot;
}

// Closes once nothing is left to send.
void TcpSocket::finishWriting() {
  if (unsentLength() > 0 && is_writable_) flush();
  if (state() != State::kOpen || !closes_after_writing_ || unsentLength() > 0) return;
  if (outgoing_ && outgoing_->hasDone()) return notify(kServe);
  if (tls_ && !tls_->said_goodbye) {
    tls_->said_goodbye = true;
    tls_->session->shutdown(&tls_->output);
    flush();
    if (state() != State::kOpen || unsentLength() > 0) return;
  }
  std::optional<VELError> error;
  if (extras_ && extras_->end_error) error = std::move(extras_->end_error);
  end(std::move(error));
}

// Moves what was read ahead out of the thread's buffer.
void TcpSocket::keepInput() {
  if (tls_ && !tls_->input.empty() && tls_->input.data() != tls_->received.data()) {
    tls_->received = std::string(tls_->input);
    tls_->input = tls_->received;
  }
  if (input_.empty()) {
    kept_input_.reset();
    input_ = {};
    return;
  }
  if (input_.data() == kept_input_.get()) return;
  auto kept = std::make_unique_for_overwrite<char[]>(input_.size());
  std::memcpy(kept.get(), input_.data(), input_.size());
  kept_input_ = std::move(kept);
  input_ = {kept_input_.get(), input_.size()};
}

void TcpSocket::linger(Workspace& workspace) {
  std::vector<uint8_t>& buffer = workspace.input();
  for (int i = 0; is_readable_ && i < kReceivesPerTurn; ++i) {
    size_t length = 0;
    const Fill result = fillPlain(buffer.data(), buffer.size(), &length);
    if (result == Fill::kEnd || result == Fill::kFailed) return closeDescriptor();
  }
  if (is_readable_) notify(kServe);
}

// Sets the one deadline for whatever is due first. A read that was served within the turn that issued it
// never had a time-out to run.
void TcpSocket::armDeadlines() {
  if (state() != State::kOpen && state() != State::kLingering) return;
  MonotonicTime due = kNever;
  const bool waits = has_read_ || isHandshaking() || state() == State::kLingering;
  if (!waits) read_due_ = kNever;
  const bool times_read = has_read_ && read_.timeout.count() >= 0;
  const bool sends = outgoing_ && !outgoing_->isSent();
  if (!times_read && !sends && !isHandshaking() && read_due_ == kNever) {
    if (Deadline::isArmed()) Deadline::disarm();
    return;
  }
  const MonotonicTime now = coarseNow();
  if (read_due_ == kNever && isHandshaking()) {
    read_due_ = now + coarseClockStep() + kHandshakeTime;
  } else if (read_due_ == kNever && times_read) {
    read_due_ = now + coarseClockStep() + std::chrono::nanoseconds(read_.timeout).count();
  }
  due = read_due_;
  if (sends) due = std::min(due, outgoing_->earliestDue(now));
  if (due == kNever) return Deadline::disarm();
  Deadline::armAt(*queue_, due);
}

void TcpSocket::deadlineDidFire() {
  const MonotonicTime now = coarseNow();
  QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue());
  if (state() == State::kLingering) return closeDescriptor();
  if (state() != State::kOpen) return;
  const bool writes = outgoing_ && outgoing_->earliestDue(now) <= now;
  if (read_due_ <= now && isHandshaking()) {
    end(VELError(VELSocketErrorDomain, kVELSocketTLSFailed, "The TLS handshake took too long."));
  } else if (read_due_ <= now) {
    end(VELError(VELSocketErrorDomain, kVELSocketReadTimeout, "Reading took too long."));
  } else if (writes) {
    end(VELError(VELSocketErrorDomain, kVELSocketWriteTimeout, "Writing took too long."));
  }
  if (frame != nullptr) frame->listTurnEnd(*this);
}

void TcpSocket::tellEnd() {
  owes_end_ = false;
  std::optional<VELError> error;
  if (extras_) error = std::exchange(extras_->end_error, std::nullopt);
  if (const std::shared_ptr<VELSocketDelegate> delegate = delegate_.lock()) {
    delegate->socketDidDisconnect(*this, error);
  }
}

}  // namespace vel
