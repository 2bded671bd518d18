// StreamSocket, the end of a turn: completions are told and reads served out of what has come, in a loop, and
// what was written leaves together.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "platform/ascii.h"
#include "platform/connector.h"
#include "platform/queue_runner.h"
#include "platform/stream_socket.h"
#include "platform/workspace.h"

namespace vel {
namespace {

// Receives and sends in one turn; a peer that sends or takes without end lets the others have theirs.
constexpr int kRoundsPerTurn = 16;
// What is told and read in one turn at most: a delegate that answers each completion with a small write would
// keep the loop for itself. A run of the queue may have dozens of turns.
constexpr int kServedPerTurn = 512;
// A handshake's time (RFC 8446 leaves it to the application).
constexpr std::chrono::milliseconds kHandshakeTime{30'000};
// How long the end of a TLS connection may take that the peer leaves no room for.
constexpr std::chrono::milliseconds kGoodbyeTime{30'000};
// How often a socket that waits without a time-out looks whether anybody is left to be told.
constexpr std::chrono::milliseconds kLookTime{30'000};
// Room for ciphertext that an idle connection may keep.
constexpr size_t kKeptTlsOutput = 1024;
// Lines of no more than this, such as those before a chunk, are followed by what is wanted at once.
constexpr size_t kShortLine = 1024;
// A read of a length beyond this is gathered in a buffer of its own.
constexpr size_t kPieceFrom = Workspace::kReceive / 2;
// What such a buffer begins with at most: who announces much must send it before it costs memory.
constexpr size_t kFirstPiece = 1024 * 1024;

}  // namespace

void StreamSocket::handleReadiness(uint32_t readiness, QueueFrame& frame) {
  if (readiness & kReadable) is_readable_ = true;
  if (readiness & kWritable) is_writable_ = true;
  if (readiness & kPeerFinished) peer_finished_ = true;
  if (readiness & kHungUp) hung_up_ = true;
  seeToTurnEnd(frame);
}

void StreamSocket::turnWillEnd(QueueFrame& frame) {
  if (move_state_.load(std::memory_order_relaxed) == MoveState::kUnderWay) runMovedCalls();
  if (move_state_.load(std::memory_order_relaxed) == MoveState::kNone) {
    if (!frame.driven && is_registered_) {
      // The caller of a `sync` owns no buffers: the loop goes on from here.
      notify(kServe);
    } else {
      serve(frame);
    }
  }
  if (has_burst_) settleBurst();
  if (move_state_.load(std::memory_order_relaxed) == MoveState::kLeaving) finishMove(frame);
}

void StreamSocket::serve(QueueFrame& frame) {
  Workspace& workspace = frame.thread.workspace();
  // What a callback throws leaves the socket as it stands, to be served again.
  struct Serving {
    StreamSocket& socket;
    QueueFrame& turn;
    bool is_interrupted = true;
    Serving(StreamSocket& served, QueueFrame& frame_of_turn) : socket(served), turn(frame_of_turn) {
      socket.is_serving_ = true;
    }
    ~Serving() {
      socket.is_serving_ = false;
      socket.keepInput();
      if (socket.has_burst_) socket.settleBurst();
      if (!is_interrupted) return;
      if (socket.is_registered_) socket.notify(kServe);
      if (socket.owes_end_) socket.seeToTurnEnd(turn);
    }
  } serving(*this, frame);

  if (state() == State::kConnecting && connector() != nullptr) {
    const std::shared_ptr<Connector> connector = extras_->connector;
    const bool is_writable = is_writable_;
    const bool has_failed = hung_up_;
    hung_up_ = false;
    is_writable_ = false;
    connector->handleReadiness(is_writable, has_failed);
  }
  if (state() == State::kLingering) linger(workspace);
  if (state() == State::kOpen) serveOpen(workspace);
  if (move_state_.load(std::memory_order_relaxed) == MoveState::kNone) finishTurn(workspace);
  serving.is_interrupted = false;
}

// Tells and reads until nothing more can be done now.
void StreamSocket::serveOpen(Workspace& workspace) {
  std::shared_ptr<VELSocketDelegate> delegate = delegate_.lock();
  int rounds = 0;
  int served = 0;
  while (state() == State::kOpen &&
         move_state_.load(std::memory_order_relaxed) == MoveState::kNone) {
    if (delegate_changed_) {
      delegate_changed_ = false;
      delegate = delegate_.lock();
    }
    if (!delegate) return end(std::nullopt);
    if (++served <= kServedPerTurn && serveOnce(*delegate, workspace)) continue;
    if (served > kServedPerTurn) flush();
    if (served > kServedPerTurn || ++rounds > kRoundsPerTurn) return notify(kServe);
    if (sendNow()) continue;
    const bool wants_more = isHandshaking() || (has_read_ && !closes_after_writing_);
    const bool may_have_more = is_readable_ || (tls_ && tls_->may_have_more);
    if (state() != State::kOpen || !wants_more || !may_have_more || !receive(workspace)) return;
  }
}

void StreamSocket::finishTurn(Workspace& workspace) {
  if (state() == State::kOpen) finishWriting();
  const bool has_lost_peer = hung_up_ || (ends_with_peer_ && peer_finished_);
  if (state() == State::kOpen && has_lost_peer && !has_read_) {
    end(VELError(VELSocketErrorDomain, kVELSocketClosed, "The peer closed the connection."));
  }
  if (outgoing_ && outgoing_->isEmpty()) {
    workspace.giveBack(std::move(outgoing_));
  } else if (outgoing_) {
    outgoing_->shrink();
  }
  // An idle connection keeps no room for what it once sent.
  if (tls_ && tls_->output.empty() && tls_->output.capacity() > kKeptTlsOutput) {
    std::string().swap(tls_->output);
  }
  if (state() == State::kOpen && isForsaken(1)) end(std::nullopt);
  armDeadlines();
  if (owes_end_) tellEnd();
}

// Whether nobody can use the socket any more and it waits for nothing.
bool StreamSocket::isForsaken(long own_references) const noexcept {
  return self_ && self_.use_count() <= own_references && !has_read_ && !outgoing_ &&
         !isHandshaking();
}

// Tells one completion or serves one read. False when neither is to be done with what has come.
bool StreamSocket::serveOnce(VELSocketDelegate& delegate, Workspace& workspace) {
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
  return has_read_ && !closes_after_writing_ && serveRead(delegate, workspace);
}

// Lets what was written go; true when that is to be told.
bool StreamSocket::sendNow() {
  if (!hasUnsent() || !is_writable_) return false;
  flush();
  return state() == State::kOpen && outgoing_ && outgoing_->hasDone();
}

bool StreamSocket::serveRead(VELSocketDelegate& delegate, Workspace& workspace) {
  if (read_.end == ReadEnd::kLength || read_.end == ReadEnd::kWait) {
    const size_t present = piece_ ? piece_->filled : input_.size();
    if (present < read_.length) return false;
    if (piece_) {
      deliverPiece(delegate, workspace);
    } else {
      deliver(delegate, read_.length);
    }
    return true;
  }
  const size_t length =
      std::min<size_t>(read_.length == 0 ? input_.size() : read_.length, input_.size());
  if (const size_t end = findTerminator({input_.data(), length}); end != 0) {
    if (read_.end == ReadEnd::kTerminator) extras_->terminators.pop_front();
    deliver(delegate, end);
    return true;
  }
  if (read_.length != 0 && input_.size() >= read_.length) {
    endAfterWriting(VELError(VELSocketErrorDomain, kVELSocketReadMaximumReached,
                             "The peer sent too much before the expected end."));
  }
  return false;
}

// Where the read's terminator ends in `input`; 0 when it is not there yet.
size_t StreamSocket::findTerminator(std::string_view input) noexcept {
  if (read_.end == ReadEnd::kTerminator) {
    const std::string_view terminator = extras_->terminators.front().view();
    const size_t found = input.find(terminator, scanned_);
    if (found != std::string_view::npos) return found + terminator.size();
    const size_t overlap = terminator.size() - 1;
    scanned_ = static_cast<uint32_t>(input.size() > overlap ? input.size() - overlap : 0);
    return 0;
  }
  const size_t end = endOfLine(input, scanned_);
  if (end == 0) scanned_ = static_cast<uint32_t>(input.size());
  return end;
}

std::span<char> StreamSocket::inputAtHand() const {
  const bool is_reading = is_serving_ && !has_read_ && !closes_after_writing_ &&
                          state() == State::kOpen &&
                          move_state_.load(std::memory_order_relaxed) == MoveState::kNone;
  // The thread's buffer, the socket's own or a piece: all may be changed.
  if (!is_reading || input_.empty()) return {};
  return {const_cast<char*>(input_.data()), input_.size()};
}

// Hands the first `length` bytes of the input to the delegate; none of them when it only waited for them.
void StreamSocket::deliver(VELSocketDelegate& delegate, size_t length) {
  if (read_.end == ReadEnd::kWait) length = 0;
  const VELData data = VELData::dataWithBorrowedBytes(input_.data(), length);
  const int64_t tag = read_.tag;
  input_.remove_prefix(length);
  has_read_ = false;
  scanned_ = 0;
  read_due_ = kNever;
  had_grace_ = false;
  if (extras_ && !extras_->further_reads.empty()) {
    read_ = extras_->further_reads.front();
    extras_->further_reads.pop_front();
    has_read_ = true;
  }
  delegate.socketDidReadData(*this, data, tag);
}

void StreamSocket::deliverPiece(VELSocketDelegate& delegate, Workspace& workspace) {
  const std::unique_ptr<Piece> piece = std::move(piece_);
  input_ = {reinterpret_cast<const char*>(piece->bytes.get()), piece->filled};
  // What is not taken, because of an exception too, stays.
  struct Rest {
    StreamSocket& socket;
    ~Rest() {
      if (socket.closes_after_writing_) socket.input_ = {};
      if (!socket.input_.empty()) socket.keepInput();
    }
  };
  {
    const Rest rest{*this};
    deliver(delegate, piece->filled);
  }
  workspace.giveBack(std::move(piece->bytes), piece->capacity);
}

// Whether what the present read misses is gathered in a buffer of its own. Input that is only waited for
// comes into the thread's buffer first: until much of it is there, nothing is taken for the rest.
bool StreamSocket::wantsPiece() const noexcept {
  if (!has_read_ || read_.length <= kPieceFrom || read_.length <= input_.size()) return false;
  if (read_.end == ReadEnd::kWait) return piece_ || input_.size() >= kPieceFrom;
  return read_.end == ReadEnd::kLength;
}

// Gets more bytes behind those at hand. False when none come now.
bool StreamSocket::receive(Workspace& workspace) {
  size_t length = 0;
  Fill result = Fill::kWouldBlock;
  if (wantsPiece()) {
    if (!makeRoomInPiece(workspace)) return false;
    Piece& piece = *piece_;
    result =
        fill(piece.bytes.get() + piece.filled, piece.capacity - piece.filled, &length, workspace);
    if (state() != State::kOpen) return false;
    piece.filled += length;
  } else {
    std::vector<uint8_t>& buffer = workspace.input();
    const size_t kept = input_.size();
    if (buffer.size() < kept + Workspace::kReceive / 2) {
      std::vector<uint8_t> larger(2 * kept + Workspace::kReceive);
      if (kept > 0) std::memcpy(larger.data(), input_.data(), kept);
      buffer.swap(larger);
    } else if (kept > 0) {
      std::memmove(buffer.data(), input_.data(), kept);
    }
    // What is read ahead of a head may have to be kept for long; behind a short line come data.
    const bool reads_line = read_.end == ReadEnd::kCRLF || read_.end == ReadEnd::kTerminator;
    const bool reads_head = has_read_ && reads_line && read_.length > kShortLine;
    const size_t most = reads_head ? Workspace::kReceiveForHeads : buffer.size();
    result = fill(buffer.data() + kept, std::min(most, buffer.size() - kept), &length, workspace);
    if (state() != State::kOpen) return false;
    input_ = {reinterpret_cast<const char*>(buffer.data()), kept + length};
  }
  if (result == Fill::kEnd && isHandshaking()) {
    end(VELError(VELSocketErrorDomain, kVELSocketClosed, "The peer closed the connection."));
  } else if (result == Fill::kEnd) {
    // A peer may close its direction first (RFC 9112 §9.6).
    endAfterWriting(
        VELError(VELSocketErrorDomain, kVELSocketClosed, "The peer closed the connection."));
  }
  return result == Fill::kGot;
}

// False without memory for it: that ends this connection, and no other work of its queue.
bool StreamSocket::makeRoomInPiece(Workspace& workspace) {
  const size_t filled = piece_ ? piece_->filled : input_.size();
  if (piece_ && filled < piece_->capacity) return true;
  try {
    growPiece(workspace, filled);
  } catch (const std::bad_alloc&) {
    end(VELError(VELPOSIXErrorDomain, ENOMEM, std::strerror(ENOMEM)));
    return false;
  }
  return true;
}

void StreamSocket::growPiece(Workspace& workspace, size_t filled) {
  auto larger = std::make_unique<Piece>();
  const size_t first = read_.end == ReadEnd::kWait ? 0 : kFirstPiece;
  larger->capacity = std::min<size_t>(read_.length, std::max(first, 2 * filled));
  larger->bytes = workspace.takePiece(larger->capacity);
  larger->filled = filled;
  const void* bytes = piece_ ? static_cast<const void*>(piece_->bytes.get()) : input_.data();
  if (filled > 0) std::memcpy(larger->bytes.get(), bytes, filled);
  piece_ = std::move(larger);
  input_ = {};
}

// Closes once nothing is left to send.
void StreamSocket::finishWriting() {
  if (hasUnsent() && is_writable_) flush();
  if (state() != State::kOpen || !closes_after_writing_ || hasUnsent()) return;
  if (outgoing_ && outgoing_->hasDone()) return notify(kServe);
  if (tls_ && !tls_->said_goodbye) {
    tls_->said_goodbye = true;
    tls_->session->shutdown(&tls_->output);
    flush();
    if (state() != State::kOpen || hasUnsent()) return;
  }
  std::optional<VELError> error;
  if (extras_ && extras_->end_error) error = std::move(extras_->end_error);
  end(std::move(error));
}

// Moves what was read ahead out of the thread's buffer. Without memory for it the connection ends.
void StreamSocket::keepInput() noexcept {
  try {
    moveInput();
  } catch (const std::bad_alloc&) {
    endWithoutMemory();
  }
}

void StreamSocket::endWithoutMemory() noexcept {
  input_ = {};
  if (tls_) tls_->input = {};
  dropReads();
  closes_after_writing_ = true;
  notify(kServe);
}

void StreamSocket::moveInput() {
  if (tls_ && (tls_->input.empty() || tls_->input.data() != tls_->received.data())) {
    std::string(tls_->input).swap(tls_->received);
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

void StreamSocket::linger(Workspace& workspace) {
  std::vector<uint8_t>& buffer = workspace.input();
  for (int i = 0; is_readable_ && i < kRoundsPerTurn; ++i) {
    size_t length = 0;
    const Fill result = fillPlain(buffer.data(), buffer.size(), &length);
    if (result == Fill::kEnd || result == Fill::kFailed) return closeNow();
  }
  if (is_readable_) notify(kServe);
}

// Sets the one deadline for whatever is due first. A read that was served within the turn that issued it
// never had a time-out to run.
void StreamSocket::armDeadlines() {
  if (state() == State::kLingering) return Deadline::armAt(*queue_, read_due_);
  if (state() != State::kOpen) return;
  const bool waits_without_end = has_read_ && read_.timeout.count() < 0 && !outgoing_ && !tls_;
  // Whatever was armed will look as well as anything.
  if (waits_without_end && read_due_ == kNever && Deadline::isArmed()) return;
  const MonotonicTime now = coarseNow();
  const bool says_goodbye = tls_ && tls_->said_goodbye;
  if (!has_read_ && !isHandshaking() && !says_goodbye) {
    read_due_ = kNever;
  } else if (read_due_ == kNever && isHandshaking()) {
    read_due_ = timeAfter(now, kHandshakeTime);
  } else if (read_due_ == kNever && says_goodbye) {
    read_due_ = timeAfter(now, kGoodbyeTime);
  } else if (read_due_ == kNever && read_.timeout.count() >= 0 && !hasUnsent()) {
    // A peer that has not been sent all yet cannot be expected to go on.
    read_due_ = timeAfter(now, read_.timeout);
  }
  MonotonicTime due = read_due_;
  if (outgoing_ && !outgoing_->isSent()) due = std::min(due, outgoing_->due(now));
  Deadline::armAt(*queue_, due != kNever ? due : timeAfter(now, kLookTime));
}

void StreamSocket::deadlineDidFire() {
  const MonotonicTime now = coarseNow();
  if (state() == State::kLingering) return closeNow();
  if (state() != State::kOpen) return;
  if (read_due_ <= now) {
    readDidTimeOut();
  } else if (outgoing_ && outgoing_->due(now) <= now) {
    end(VELError(VELSocketErrorDomain, kVELSocketWriteTimeout, "Writing took too long."));
  } else if (move_state_.load(std::memory_order_relaxed) == MoveState::kNone &&
             (delegate_.expired() || isForsaken(2))) {  // the firing holds the socket, too
    end(std::nullopt);
  }
  if (QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue())) seeToTurnEnd(*frame);
}

void StreamSocket::readDidTimeOut() {
  if (isHandshaking()) {
    end(VELError(VELSocketErrorDomain, kVELSocketTLSFailed, "The TLS handshake took too long."));
  } else if (tls_ && tls_->said_goodbye) {
    end(std::nullopt);
  } else if (!had_grace_) {
    // The queue may have been busy: what came in time is looked at before the time counts.
    had_grace_ = true;
    is_readable_ = true;
  } else {
    end(VELError(VELSocketErrorDomain, kVELSocketReadTimeout, "Reading took too long."));
  }
}

void StreamSocket::tellEnd() {
  owes_end_ = false;
  std::optional<VELError> error;
  if (extras_) error = std::exchange(extras_->end_error, std::nullopt);
  if (const std::shared_ptr<VELSocketDelegate> delegate = delegate_.lock()) {
    delegate->socketDidDisconnect(*this, error);
  }
}

}  // namespace vel
