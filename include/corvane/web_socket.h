// VELWebSocket: one open WebSocket session, at either end of a connection.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/connection.h"
#include "corvane/data.h"
#include "corvane/error.h"
#include "corvane/export.h"
#include "corvane/progress.h"
#include "corvane/serial_queue.h"
#include "corvane/socket.h"
#include "corvane/url_request.h"
#include "corvane/uuid.h"
#include "corvane/web_socket_message.h"

class VELRequest;
class VELServer;
class VELWebSocket;

namespace vel {
class SessionCall;
struct FrameReading;
struct SessionEnding;
struct SessionRequest;
struct ThreadRecord;
}  // namespace vel

/// How far a session has come.
enum class VELWebSocketState : uint8_t {
  kOpen = 0,
  /// A close frame has been written; nothing is read any more.
  kClosing = 1,
  /// The socket has disconnected.
  kClosed = 2,
};

/// Receives what happens on a session.
/// Queue:   the session's; never inside the call that caused it.
class CORVANE_EXPORT VELWebSocketDelegate {
 public:
  virtual ~VELWebSocketDelegate() = default;
  /// Once per complete message, in the order in which they came.
  /// Owner:   `message` lives as long as the call; a copy owns its bytes.
  /// Errors:  what is thrown closes the session, not the process.
  virtual void webSocketDidReceiveMessage(VELWebSocket& webSocket,
                                          const VELWebSocketMessage& message) = 0;
  /// Once, last, after the socket has disconnected. `error` is of `VELWebSocketErrorDomain` and carries
  /// the close status and its reason, 1000 for a normal end and 1006 for a peer that went away without a
  /// close frame; or it is the error with which the socket failed, a time-out for instance.
  /// Default: does nothing.
  virtual void webSocketDidCloseWithError(VELWebSocket& webSocket, const VELError& error);
};

/// A WebSocket session (RFC 6455) over a socket whose opening handshake is done.
///
/// ```cpp
/// class Echo : public VELWebSocketDelegate {
///   void webSocketDidReceiveMessage(VELWebSocket& webSocket,
///                                   const VELWebSocketMessage& message) override {
///     webSocket.sendMessage(message);
///   }
/// };
/// ```
/// A session sends each message as one frame. It does not join messages that come in several: such a
/// message ends it with 1002. Frames and messages may have any length; memory is taken for bytes that
/// have come, not for those that were announced. While more than 4 MiB wait for a client to take them, a
/// server's session reads nothing from it.
/// Owner:   a server's sessions: the server, until they have closed. Others: whoever opened them; an open
///          session whose last reference goes away disconnects.
/// Queue:   operations may be called on any thread unless they say otherwise. What they cause happens on
///          the session's queue, in the order of the calls.
/// Errors:  a peer that breaks the rules ends the session with 1002, or with 1007 for a text that is not
///          UTF-8. The rest of a frame that has begun, and every write, may take 30 seconds; waiting for
///          a frame may take forever.
class CORVANE_EXPORT VELWebSocket final : public VELConnection,
                                          public VELSocketDelegate,
                                          public vel::LastResort,
                                          public std::enable_shared_from_this<VELWebSocket> {
 public:
  /// Raises "WebSockets should not be initialized directly".
  VELWebSocket();
  /// A session over `socket`; for `std::make_shared`. It takes the socket over, as its delegate, when it
  /// is started; `webSocketWithSocket` has that done at once.
  /// Shape:   `protocol`: the subprotocol agreed on, if one was. `isServerSocket`: frames are received
  ///          masked and sent plain, else the other way round.
  /// Owner:   holds `socket`.
  /// Queue:   `delegateQueue` becomes the session's and the socket's; without one the session makes its
  ///          own, "org.corvane.WebSocket", on the loop on which the socket is.
  VELWebSocket(std::shared_ptr<VELSocket> socket, std::optional<std::string> protocol,
               std::shared_ptr<VELSerialQueue> delegateQueue, bool isServerSocket);
  /// A session that has taken the socket over. It reads nothing before `start`.
  /// Queue:   the socket's present delegate queue, or anywhere before its first read or write.
  static std::shared_ptr<VELWebSocket> webSocketWithSocket(
      std::shared_ptr<VELSocket> socket, std::optional<std::string> protocol,
      std::shared_ptr<VELSerialQueue> delegateQueue, bool isServerSocket);

  /// Whether `request` asks for an upgrade to WebSocket: its "Upgrade" is "WebSocket", and its "Connection"
  /// contains "Upgrade", both in any letter case.
  static bool isWebSocketRequest(const VELRequest& request);

  /// Receives the session, which has to be given a delegate and started, or an error.
  /// | what happened                                | error                                    |
  /// |----------------------------------------------|------------------------------------------|
  /// | the connection could not be begun            | the socket's; inside the call that opens |
  /// | the answer was neither 101 nor 200           | `VELURLErrorDomain`, -1011               |
  /// | the progress was cancelled                   | `VELCocoaErrorDomain`, 3072              |
  /// | the connection failed, ended or took too     | the socket's; none for an end that this  |
  /// | long before the answer was read              | side asked for                           |
  ///
  /// It may be called more than once: a cancellation is told whenever it comes, also after a session or an
  /// error, and the disconnect that it causes is told as well unless a session was handed over before.
  /// Owner:   held until the open has ended, and by the progress. A connection whose answer was refused
  ///          stays open as long as the progress.
  /// Queue:   that of the open, but for connections that could not be begun.
  using CompletionHandler = std::function<void(std::shared_ptr<VELWebSocket> webSocket,
                                               const std::optional<VELError>& error)>;
  /// Opens a WebSocket at `URL` and offers `protocols`.
  ///
  /// ```cpp
  /// struct Client : VELWebSocketDelegate {
  ///   std::shared_ptr<VELWebSocket> session;  // held, since the last reference disconnects
  ///   void webSocketDidReceiveMessage(VELWebSocket& webSocket, const VELWebSocketMessage&) override {
  ///     webSocket.close();
  ///   }
  /// };
  /// void ask(const VELURL& url, std::shared_ptr<Client> client) {
  ///   VELWebSocket::openWebSocketWithURL(url, {"chat"}, nullptr, [client](auto webSocket, const auto&) {
  ///     if (!webSocket) return;  // the error tells why
  ///     client->session = webSocket;
  ///     webSocket->setDelegate(client);
  ///     webSocket->start();
  ///     webSocket->sendMessage("Hello");
  ///   });
  /// }
  /// ```
  /// The progress cancels; to drop it does not. Names are looked up on threads of their own.
  /// Shape:   the scheme chooses the port where the URL has none, 443 for "wss" and "https", else 80. It
  ///          does nothing more: the connection is not encrypted, whatever it says.
  /// Queue:   `delegateQueue` becomes that of the open and of the session; without one they have a new one.
  static std::shared_ptr<VELProgress> openWebSocketWithURL(
      const VELURL& URL, const std::vector<std::string>& protocols,
      std::shared_ptr<VELSerialQueue> delegateQueue, CompletionHandler completionHandler);
  /// The same with the fields and the time-out of `request`, which covers the connecting, and then the
  /// waiting for the answer. Its method and body are not used. A head of more than 64 KiB is refused.
  static std::shared_ptr<VELProgress> openWebSocketWithRequest(
      const VELURLRequest& request, std::shared_ptr<VELSerialQueue> delegateQueue,
      CompletionHandler completionHandler);

  VELWebSocket(const VELWebSocket&) = delete;
  VELWebSocket& operator=(const VELWebSocket&) = delete;
  ~VELWebSocket() override;

  /// Begins to read. Call it after the delegate has been set; a second call does nothing. A session that has
  /// ended by then tells its delegate so.
  void start();

  /// Sends `text`, as far as the session has not begun to close by then. Inside the delegate's call it
  /// goes out after the call; elsewhere after all that was posted to the queue before.
  /// What the peer does not take waits in memory until the write has taken too long. Who sends much that the
  /// peer has not asked for looks at `socket()->unsentLength()` first, on the session's queue.
  /// Errors:  raises an invalid-argument exception for a text that is not UTF-8.
  void sendMessage(std::string_view text);
  /// The same; none is an empty binary message.
  void sendMessage(const char* text);
  /// Sends `data` as a binary message.
  /// Owner:   data that owns its bytes is not copied where the frame is sent plain.
  void sendMessage(const VELData& data);
  /// Sends an empty binary message.
  void sendMessage(std::nullptr_t none);
  /// Sends what another session has received, or a message that was framed once for many sessions.
  void sendMessage(const VELWebSocketMessage& message);

  /// Writes one frame at once, with the opcode as it is, a ping (9) for instance. Other calls post their
  /// frames: it may overtake them.
  void sendFrameWithOpcode(uint8_t opcode, const VELData& data);

  /// Closes with 1000.
  void close() override;
  /// Sends a close frame and disconnects once it has been sent. A second call does nothing. What the peer
  /// still sends is taken in and dropped for two seconds at most: ending the process before may cost the
  /// peer what was sent last.
  /// Shape:   any `code`; its low 16 bits are sent, and all of it is reported to the delegate.
  /// Errors:  raises an invalid-argument exception for a reason that is not UTF-8.
  void closeWithCode(int64_t code, std::optional<std::string> reason = std::nullopt);
  /// Disconnects without a close frame.
  void closeAtOnce() override;
  /// Closes with 1001: the server goes away.
  void closeWhenIdle() override;

  VELWebSocketState state() const noexcept { return state_.load(std::memory_order_relaxed); }
  bool isServerSocket() const noexcept { return is_server_socket_; }
  VELUUID identifier() const override { return identifier_; }
  /// The subprotocol agreed on in the handshake.
  std::optional<std::string> protocol() const;
  /// None once it has disconnected.
  std::shared_ptr<VELSocket> socket() const;
  /// The queue on which the session works and its delegate is called.
  const std::shared_ptr<VELSerialQueue>& delegateQueue() const noexcept { return queue_; }
  bool isSecure() const override;
  VELSocketAddress peerAddress() const override;

  /// Held weakly. A message that comes without one is dropped.
  std::shared_ptr<VELWebSocketDelegate> delegate() const;
  void setDelegate(std::weak_ptr<VELWebSocketDelegate> delegate);
  /// The server that is told when the session has ended. Held weakly.
  /// Default: none.
  /// Queue:   setting it: before `start`.
  std::shared_ptr<VELServer> server() const override;
  void setServer(const std::shared_ptr<VELServer>& server) { server_ = server; }

  // For the library's own use.
  void socketDidReadData(VELSocket& socket, const VELData& data, int64_t tag) override;
  void socketDidWriteDataWithTag(VELSocket& socket, int64_t tag) override;
  void socketDidDisconnect(VELSocket& socket, const std::optional<VELError>& error) override;
  void workDidThrow(const std::exception_ptr& exception) override;

 private:
  friend class vel::SessionCall;

  void attach();

  // Reading: web_socket_reading.cpp.
  void handleFrames();
  bool handleFrame(const vel::FrameReading& frame, std::string_view payload,
                   std::shared_ptr<VELWebSocketDelegate>& delegate);
  bool deliverMessage(bool isText, std::string_view payload,
                      std::shared_ptr<VELWebSocketDelegate>& delegate);
  void handleClose(std::string_view payload);
  void waitForInput(uint64_t length, std::chrono::milliseconds timeout);
  bool hasMuchUnsent() const;
  void readOnOnceSent();
  void readOn();

  // Sending: web_socket_sending.cpp.
  bool isDelivering() const noexcept;
  void sendOrPost(uint8_t opcode, const VELData& payload, const VELData* serverFrame = nullptr);
  void carryOut(const vel::SessionRequest& request);
  void sendMasked(uint8_t opcode, const VELData& payload);

  // Ending: web_socket_ending.cpp.
  vel::SessionEnding& ending();
  void beginClosing(int64_t code, std::optional<std::string> reason);
  void endWith(int64_t code, std::optional<std::string> reason, const VELData& closePayload);
  void disconnect();
  void tellEndThatNobodyHeard();

  const std::shared_ptr<VELSocket> socket_;
  const std::shared_ptr<VELSerialQueue> queue_;
  const VELUUID identifier_;
  const std::unique_ptr<const std::string> protocol_;
  std::weak_ptr<VELServer> server_;

  // Guarded by delegate_lock_, which is held around nothing but a copy.
  std::weak_ptr<VELWebSocketDelegate> delegate_;
  mutable std::atomic<bool> delegate_lock_{false};
  // Set by who changes the delegate, taken back by who looks it up for the messages at hand.
  std::atomic<bool> delegate_changed_{false};

  // Changed on the queue only.
  std::atomic<VELWebSocketState> state_{VELWebSocketState::kOpen};
  // Whether the session is its socket's delegate.
  std::atomic<bool> is_attached_{false};
  std::atomic<bool> is_started_{false};
  const bool is_server_socket_;
  const bool owns_queue_;
  // Belong to the queue.
  bool is_in_message_ = false;
  bool has_posted_ =
      false;  // the delegate's present call has caused work that comes before the next frame
  // Calls that are on their way to the queue.
  std::atomic<uint32_t> calls_under_way_{0};
  // The thread that is inside a call of the delegate's.
  std::atomic<const vel::ThreadRecord*> delivering_thread_{nullptr};
  // What only a session that ends needs. Belongs to the queue.
  std::unique_ptr<vel::SessionEnding> ending_;
};
