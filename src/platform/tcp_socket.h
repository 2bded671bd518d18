// TcpSocket: VELSocket over the sockets of the system. The public operations stand in tcp_socket.cpp, what
// happens at the end of each turn in tcp_socket_serve.cpp, how bytes come and go in tcp_socket_io.cpp, the
// change of queue in tcp_socket_move.cpp.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
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
class TcpSocket final : public VELSocket,
                        private EventSource,
                        private TurnEnd,
                        private Deadline,
                        public std::enable_shared_from_this<TcpSocket> {
 public:
  TcpSocket(std::weak_ptr<VELSocketDelegate> delegate, std::shared_ptr<VELSerialQueue> queue);
  /// Takes over an accepted descriptor.
  TcpSocket(int fd, std::shared_ptr<VELSerialQueue> queue);
  ~TcpSocket() override;

  bool acceptOnInterface(const std::optional<std::string>& interface, uint16_t port,
                         VELError* error) override;
  bool connectToHost(const std::string& host, uint16_t port, std::chrono::milliseconds timeout,
                     VELError* error) override;
  void readDataToData(const VELData& terminator, std::chrono::milliseconds timeout,
                      size_t maxLength, int64_t tag) override;
  void readDataToLength(size_t length, std::chrono::milliseconds timeout, int64_t tag) override;
  void writeData(VELData data, std::chrono::milliseconds timeout, int64_t tag) override;
  void startTLS(const VELTLSSettings& settings) override;
  void disconnect() override;
  void disconnectAfterWriting() override;
  void setDelegate(std::weak_ptr<VELSocketDelegate> delegate,
                   std::shared_ptr<VELSerialQueue> delegateQueue) override;
  std::shared_ptr<VELSerialQueue> delegateQueue() const override;
  bool isSecure() const override { return is_secure_.load(std::memory_order_relaxed); }
  bool isConnected() const override { return state() == State::kOpen; }
  size_t unsentLength() const override;
  VELSocketAddress localAddress() const override;
  VELSocketAddress peerAddress() const override;

  // For the listener and the connector of this socket, on its queue.
  void didAccept(int fd);
  void didConnect(int fd, const std::string& host, uint16_t port);
  void didFailToConnect(VELError error);

 private:
  friend class Connector;

  enum class State : uint8_t { kUnused, kListening, kConnecting, kOpen, kLingering, kEnded };
  enum class Fill { kGot, kWouldBlock, kEnd, kFailed };

  enum class ReadEnd : uint8_t { kLength, kCRLF, kTerminator };
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
  // A read of a length that is gathered over several receives.
  struct Piece {
    std::unique_ptr<uint8_t[]> bytes;
    size_t capacity = 0;
    size_t filled = 0;
  };
  struct Tls {
    std::unique_ptr<TlsSession> session;
    std::string received;    // ciphertext kept between turns
    std::string_view input;  // ciphertext at hand
    std::string output;      // ciphertext to send
    size_t output_sent = 0;
    size_t plain_in_output = 0;  // plain bytes that `output` stands for
    bool may_have_more = true;   // the session was not asked for all that it holds
    bool said_goodbye = false;
    bool told_secure = false;
  };
  // A change of queue that waits for the end of the present turn.
  struct Move {
    std::weak_ptr<VELSocketDelegate> delegate;
    std::shared_ptr<VELSerialQueue> queue;
    // Calls made meanwhile on other threads, in order.
    std::vector<std::function<void(TcpSocket&)>> calls;
  };

  // How far a change of queue has come.
  enum class MoveState : uint8_t {
    kNone,
    kAsked,     // what was posted to the old queue before goes first
    kLeaving,   // the last turn on the old queue goes on
    kUnderWay,  // the new queue has not come to the socket yet
    kArriving,  // calls made meanwhile are being made up for
  };

  State state() const noexcept { return state_.load(std::memory_order_relaxed); }
  Extras& extras();
  QueueFrame* holdingFrame() const noexcept;
  // Guards which queue a socket belongs to. Held around nothing but the posting of a call.
  static std::mutex& queueMutex();
  template <class Call>
  void onQueue(Call&& call);
  void postCall(std::function<void(TcpSocket&)> call);
  void runCall(const std::function<void(TcpSocket&)>& call);
  void seeToTurnEnd(QueueFrame& frame);

  // tcp_socket.cpp, on the queue
  bool open();
  void addRead(const ReadRequest& request);
  size_t findTerminator(std::string_view input) noexcept;
  void beginTls(const VELTLSSettings& settings);
  void end(std::optional<VELError> error);
  void dropReads();
  void closeDescriptor();

  // tcp_socket_move.cpp
  bool redirectMove(std::weak_ptr<VELSocketDelegate>& delegate,
                    std::shared_ptr<VELSerialQueue>& queue);
  void finishMove(QueueFrame& frame);
  void arrive();
  void runMovedCalls();

  // EventSource, TurnEnd, Deadline
  void handleReadiness(uint32_t readiness, QueueFrame& frame) override;
  void didRetire(QueueFrame& frame) override;
  // The loops have stopped: nobody will come for the socket any more.
  void dropNode() noexcept override { const std::shared_ptr<TcpSocket> end = std::move(self_); }
  void deadlineWillNeverFire() noexcept override {
    const std::shared_ptr<TcpSocket> end = std::move(self_);
  }
  void turnWillEnd(QueueFrame& frame) override;
  void deadlineDidFire() override;
  std::shared_ptr<void> deadlineOwner() override { return weak_from_this().lock(); }

  // tcp_socket_serve.cpp
  void serve(QueueFrame& frame);
  void serveOpen(Workspace& workspace);
  bool serveOnce(VELSocketDelegate& delegate, Workspace& workspace);
  bool serveRead(VELSocketDelegate& delegate, Workspace& workspace);
  void deliver(VELSocketDelegate& delegate, size_t length);
  bool receive(Workspace& workspace);
  void makeRoomInPiece(Workspace& workspace);
  bool sendNow();
  bool isForsaken(long own_references) const noexcept;
  void finishTurn(Workspace& workspace);
  void finishWriting();
  void keepInput();
  void linger(Workspace& workspace);
  void armDeadlines();
  void readDidTimeOut();
  void tellEnd();

  // tcp_socket_io.cpp
  void flush();
  void flushTls();
  void gotWriteError(int error);
  ptrdiff_t sendVectors(const iovec* vectors, int count);
  Fill fill(uint8_t* buffer, size_t capacity, size_t* length, Workspace& workspace);
  Fill fillPlain(uint8_t* buffer, size_t capacity, size_t* length);
  Fill fillTls(uint8_t* buffer, size_t capacity, size_t* length, Workspace& workspace);
  Connector* connector() const noexcept { return extras_ ? extras_->connector.get() : nullptr; }
  bool isHandshaking() const noexcept { return tls_ && !tls_->session->isHandshakeDone(); }

  // Guarded by the lock of queues (tcp_socket.cpp); on the queue it may be read without.
  std::weak_ptr<VELSocketDelegate> delegate_;
  std::shared_ptr<VELSerialQueue> queue_;
  std::unique_ptr<Move> move_;

  std::atomic<int> fd_{-1};
  std::atomic<State> state_{State::kUnused};
  std::atomic<bool> is_secure_{false};
  std::atomic<MoveState> move_state_{MoveState::kNone};
  // Whether anybody but the maker may be at work on the socket.
  std::atomic<bool> is_used_{false};

  // Touched on the queue only.
  bool is_registered_ : 1 = false;
  bool is_readable_ : 1 = false;
  bool is_writable_ : 1 = true;
  bool peer_finished_ : 1 = false;
  bool hung_up_ : 1 = false;
  bool has_read_ : 1 = false;
  bool closes_after_writing_ : 1 = false;
  bool owes_end_ : 1 = false;
  bool is_serving_ : 1 = false;
  bool delegate_changed_ : 1 = false;
  bool had_grace_ : 1 = false;  // the read at hand was late, but its bytes might be here
  uint32_t scanned_ = 0;        // bytes of the input known to hold no terminator
  ReadRequest read_;
  MonotonicTime read_due_ = kNever;
  std::string_view
      input_;  // bytes read ahead: in kept_input_, or during a turn in the thread's buffer
  std::unique_ptr<char[]> kept_input_;
  std::unique_ptr<Piece> piece_;
  std::unique_ptr<Outgoing> outgoing_;
  std::unique_ptr<Tls> tls_;
  std::unique_ptr<Extras> extras_;
  // Keeps the socket while events can name it.
  std::shared_ptr<TcpSocket> self_;
};

}  // namespace vel
