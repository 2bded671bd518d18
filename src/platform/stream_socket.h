// StreamSocket: all of VELSocket but the transport that carries the bytes. The public operations stand in
// stream_socket.cpp, what happens at the end of each turn in stream_socket_serve.cpp, how bytes come and
// go in stream_socket_io.cpp, the change of queue in stream_socket_move.cpp.
#pragma once

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/socket.h"
#include "platform/deadline.h"
#include "platform/event_loop.h"
#include "platform/outgoing.h"
#include "platform/tls_session.h"

namespace vel {

class Connector;
class Listener;

/// | State       | Means                                            | Goes to                     |
/// |-------------|--------------------------------------------------|-----------------------------|
/// | kUnused     | neither listening nor connected                  | kListening, kConnecting     |
/// | kListening  | accepts                                          | kUnused                     |
/// | kConnecting | looks a name up or tries its addresses           | kOpen, kEnded               |
/// | kOpen       | reads and writes                                 | kLingering, kEnded          |
/// | kLingering  | closed for its delegate; takes in what the peer  | kEnded                      |
/// |             | still sends, so that the answer is not lost      |                             |
/// | kEnded      | closed for good                                  |                             |
class StreamSocket : public VELSocket,
                     protected EventSource,
                     private TurnEnd,
                     private Deadline,
                     public std::enable_shared_from_this<StreamSocket> {
 public:
  ~StreamSocket() override;

  void readDataToData(const VELData& terminator, std::chrono::milliseconds timeout,
                      size_t maxLength, int64_t tag) override;
  std::span<char> inputAtHand() const override;
  void takeInput(size_t length) override { input_.remove_prefix(std::min(length, input_.size())); }
  void waitForInput(size_t length, std::chrono::milliseconds timeout, int64_t tag) override;
  void readDataToLength(size_t length, std::chrono::milliseconds timeout, int64_t tag) override;
  void writeData(VELData data, std::chrono::milliseconds timeout, int64_t tag) override;
  void writeHeadAndData(std::string_view head, const VELData& data,
                        std::chrono::milliseconds timeout, int64_t tag) override;
  void startTLS(const VELTLSSettings& settings) override;
  void disconnect() override;
  void disconnectAfterWriting() override;
  void expectUnreadInput() override;
  void setEndsWithPeer(bool endsWithPeer) override;
  void setDelegate(std::weak_ptr<VELSocketDelegate> delegate,
                   std::shared_ptr<VELSerialQueue> delegateQueue) override;
  std::shared_ptr<VELSerialQueue> delegateQueue() const override;
  bool isSecure() const override { return is_secure_.load(std::memory_order_relaxed); }
  bool isConnected() const override { return state() == State::kOpen; }
  size_t unsentLength() const override;

 protected:
  friend class Connector;

  enum class State : uint8_t { kUnused, kListening, kConnecting, kOpen, kLingering, kEnded };

  StreamSocket(std::weak_ptr<VELSocketDelegate> delegate, std::shared_ptr<VELSerialQueue> queue,
               State state);

  /// The transport, on the queue. Its bytes come and go as with recv(2) and send(2) on a descriptor that
  /// does not block: -1 with errno set when nothing did.
  virtual ptrdiff_t receiveBytes(void* buffer, size_t capacity) noexcept = 0;
  /// `has_more`: what follows is sent at once, so nothing need leave yet.
  virtual ptrdiff_t sendBytes(const iovec* vectors, int count, bool has_more) noexcept = 0;
  /// The same with bytes of a file; 0 when the file has none there. As it stands here it sends them from
  /// memory, and may find none for them.
  virtual ptrdiff_t sendRegion(const RegionRest& rest);
  /// Ends the sending direction; the other one goes on.
  virtual void finishSending() noexcept = 0;
  /// Has readiness told as an edge-triggered epoll does, the present one first. Errors: false, with errno.
  virtual bool watch(EventLoop& loop) noexcept = 0;
  virtual void stopWatching(EventLoop& loop) noexcept = 0;
  virtual void closeTransport() noexcept = 0;
  /// Only for sockets that listen.
  virtual void stopListening() {}

  // kWait takes nothing.
  enum class ReadEnd : uint8_t { kLength, kWait, kCRLF, kTerminator };
  struct ReadRequest {
    // Length to read, or the maximum for a terminator (0: none).
    uint64_t length = 0;
    int64_t tag = 0;
    std::chrono::milliseconds timeout{-1};
    ReadEnd end = ReadEnd::kLength;
  };
  // What few sockets need.
  struct Extras {
    std::deque<ReadRequest> further_reads;
    // Those of the reads that end at one of their own, in order.
    std::deque<VELData> terminators;
    std::optional<VELError> end_error;
    // Replaced under the lock of queues.
    std::shared_ptr<Listener> listener;
    std::shared_ptr<Connector> connector;
  };
  State state() const noexcept { return state_.load(std::memory_order_relaxed); }
  Extras& extras();
  // This thread's hold on the socket; none when a call has to be posted. The queue is looked up first: who
  // sees the new one sees the move, too.
  QueueFrame* holdingFrame() const noexcept {
    QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue());
    const bool is_moving = move_state_.load(std::memory_order_acquire) == MoveState::kUnderWay;
    return is_moving ? nullptr : frame;
  }
  // Guards which queue a socket belongs to. Held around nothing but the posting of a call.
  static std::mutex& queueMutex();
  template <class Call>
  void onQueue(Call&& call) {
    if (QueueFrame* frame = holdingFrame()) {
      call(*this);
      seeToTurnEnd(*frame);
    } else {
      postCall(std::forward<Call>(call));
    }
  }
  void postCall(std::function<void(StreamSocket&)> call);
  void seeToTurnEnd(QueueFrame& frame) {
    if (!is_serving_ && !isListed()) listForTurnEnd(frame);
  }
  void listForTurnEnd(QueueFrame& frame);
  void end(std::optional<VELError> error);
  // The transport stands and is watched.
  void didOpen();
  Connector* connector() const noexcept { return extras_ ? extras_->connector.get() : nullptr; }

  // Guarded by the lock of queues; on the queue they may be read without.
  std::weak_ptr<VELSocketDelegate> delegate_;
  std::shared_ptr<VELSerialQueue> queue_;
  std::atomic<State> state_;
  // Whether anybody but the maker may be at work on the socket.
  std::atomic<bool> is_used_{false};
  std::unique_ptr<Extras> extras_;

 private:
  enum class Fill { kGot, kWouldBlock, kEnd, kFailed };

  // A read of a length that is gathered over several receives.
  struct Piece {
    std::unique_ptr<uint8_t[]> bytes;
    size_t capacity = 0;
    size_t filled = 0;
  };
  // A part of the ciphertext to send.
  struct Slice {
    size_t end;    // in `output`
    size_t plain;  // bytes that it stands for
  };
  struct Tls {
    std::unique_ptr<TlsSession> session;
    std::string received;    // ciphertext kept between turns
    std::string_view input;  // ciphertext at hand
    std::string output;      // ciphertext to send
    size_t output_sent = 0;
    // What `output` stands for and has not been counted as sent, in order.
    std::vector<Slice> slices;
    bool may_have_more = true;  // the session was not asked for all that it holds
    bool said_goodbye = false;
    bool told_secure = false;
  };
  // A change of queue that waits for the end of the present turn.
  struct Move {
    std::weak_ptr<VELSocketDelegate> delegate;
    std::shared_ptr<VELSerialQueue> queue;
    // Calls made meanwhile on other threads, in order.
    std::vector<std::function<void(StreamSocket&)>> calls;
  };

  // How far a change of queue has come.
  enum class MoveState : uint8_t {
    kNone,
    kAsked,     // what was posted to the old queue before goes first
    kLeaving,   // the last turn on the old queue goes on
    kUnderWay,  // the new queue has not come to the socket yet
    kArriving,  // calls made meanwhile are being made up for
  };

  void runCall(const std::function<void(StreamSocket&)>& call);

  // stream_socket.cpp, on the queue
  bool open();
  bool beginWrite(QueueFrame& frame);
  void addRead(const ReadRequest& request);
  size_t findTerminator(std::string_view input) noexcept;
  void beginTls(const VELTLSSettings& settings);
  void dropReads();
  void endAfterWriting(VELError error);
  void closeNow();

  // stream_socket_move.cpp
  bool redirectMove(std::weak_ptr<VELSocketDelegate>& delegate,
                    std::shared_ptr<VELSerialQueue>& queue);
  void finishMove(QueueFrame& frame);
  void arrive();
  void runMovedCalls();

  // EventSource, TurnEnd, Deadline
  void handleReadiness(uint32_t readiness, QueueFrame& frame) override;
  void didRetire(QueueFrame& frame) override;
  // The loops have stopped: nobody will come for the socket any more.
  void dropNode() noexcept override { const std::shared_ptr<StreamSocket> end = std::move(self_); }
  void deadlineWillNeverFire() noexcept override {
    const std::shared_ptr<StreamSocket> end = std::move(self_);
  }
  void turnWillEnd(QueueFrame& frame) override;
  void deadlineDidFire() override;
  std::shared_ptr<void> deadlineOwner() override { return weak_from_this().lock(); }

  // stream_socket_serve.cpp
  void serve(QueueFrame& frame);
  void serveOpen(Workspace& workspace);
  bool serveOnce(VELSocketDelegate& delegate, Workspace& workspace);
  bool serveRead(VELSocketDelegate& delegate, Workspace& workspace);
  void deliver(VELSocketDelegate& delegate, size_t length);
  void deliverPiece(VELSocketDelegate& delegate, Workspace& workspace);
  bool receive(Workspace& workspace);
  bool wantsPiece() const noexcept;
  bool makeRoomInPiece(Workspace& workspace);
  void growPiece(Workspace& workspace, size_t filled);
  bool sendNow();
  bool isForsaken(long own_references) const noexcept;
  void finishTurn(Workspace& workspace);
  void finishWriting();
  void keepInput() noexcept;
  void endWithoutMemory() noexcept;
  void moveInput();
  void linger(Workspace& workspace);
  void armDeadlines();
  void readDidTimeOut();
  void tellEnd();

  // stream_socket_io.cpp
  void flush();
  bool addToBurst(Workspace& workspace, std::string_view head, const VELData& data,
                  std::chrono::milliseconds timeout);
  void flushBurst();
  void settleBurst(size_t sent = 0) noexcept;
  bool flushRegion(const RegionRest& region);
  void flushTls();
  void countSentSlices();
  bool encryptAhead();
  void gotWriteError(int error);
  Fill fill(uint8_t* buffer, size_t capacity, size_t* length, Workspace& workspace);
  Fill fillPlain(uint8_t* buffer, size_t capacity, size_t* length);
  Fill fillTls(uint8_t* buffer, size_t capacity, size_t* length, Workspace& workspace);
  bool hasUnsent() const noexcept {
    return has_burst_ || (outgoing_ && outgoing_->unsent() > 0) ||
           (tls_ && tls_->output.size() > tls_->output_sent);
  }
  bool isHandshaking() const noexcept { return tls_ && !tls_->session->isHandshakeDone(); }

  // Guarded by the lock of queues, as the queue is.
  std::unique_ptr<Move> move_;

  std::atomic<bool> is_secure_{false};
  std::atomic<MoveState> move_state_{MoveState::kNone};

  // Touched on the queue only.
  bool is_registered_ : 1 = false;
  bool is_readable_ : 1 = false;
  bool is_writable_ : 1 = true;
  bool peer_finished_ : 1 = false;
  bool hung_up_ : 1 = false;
  bool has_read_ : 1 = false;
  bool closes_after_writing_ : 1 = false;
  bool expects_unread_input_ : 1 = false;
  bool ends_with_peer_ : 1 = false;
  bool is_ending_ : 1 = false;
  bool owes_end_ : 1 = false;
  bool is_serving_ : 1 = false;
  bool has_burst_ : 1 = false;  // the thread's burst holds writes of this turn
  bool delegate_changed_ : 1 = false;
  bool had_grace_ : 1 = false;  // the read at hand was late, but its bytes might be here
  uint32_t scanned_ = 0;        // bytes of the input known to hold no terminator
  ReadRequest read_;
  MonotonicTime read_due_ = kNever;
  // Bytes read ahead: in kept_input_, or during a turn in the thread's buffer.
  std::string_view input_;
  std::unique_ptr<char[]> kept_input_;
  std::unique_ptr<Piece> piece_;
  std::unique_ptr<Outgoing> outgoing_;
  std::unique_ptr<Tls> tls_;
  // Keeps the socket while events can name it.
  std::shared_ptr<StreamSocket> self_;
};

}  // namespace vel
