// VELSocket: the asynchronous stream socket that everything above the platform layer talks through.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "corvane/data.h"
#include "corvane/error.h"
#include "corvane/export.h"
#include "corvane/identity.h"
#include "corvane/serial_queue.h"

class VELSocket;

/// Codes of `VELSocketErrorDomain`.
enum VELSocketErrorCode : int64_t {
  kVELSocketBadConfiguration = 1,
  kVELSocketBadParameter = 2,
  kVELSocketConnectTimeout = 3,
  kVELSocketReadTimeout = 4,
  kVELSocketWriteTimeout = 5,
  kVELSocketReadMaximumReached = 6,
  /// The peer closed or reset the connection.
  kVELSocketClosed = 7,
  kVELSocketOther = 8,
  kVELSocketTLSFailed = 9,
};

/// An address of one end of a connection.
struct VELSocketAddress {
  /// Numeric host, without brackets; empty when there is none.
  std::string host;
  uint16_t port = 0;
};

/// Receives what happens on a socket. Each operation has a default that does nothing.
/// Queue:   the socket's delegate queue; never inside the call that caused it.
/// Owner:   the arguments live as long as the call; a copied `VELData` owns its bytes.
class CORVANE_EXPORT VELSocketDelegate {
 public:
  virtual ~VELSocketDelegate() = default;
  /// Once per accepted connection. The new socket reads nothing until it is asked to.
  virtual void socketDidAcceptNewSocket(VELSocket& socket, std::shared_ptr<VELSocket> newSocket);
  /// Once, before any read or write of a connecting socket completes.
  virtual void socketDidConnectToHost(VELSocket& socket, const std::string& host, uint16_t port);
  /// Once per read, in the order in which the reads were issued.
  virtual void socketDidReadData(VELSocket& socket, const VELData& data, int64_t tag);
  /// Once per write, in the order in which the writes were issued.
  virtual void socketDidWriteDataWithTag(VELSocket& socket, int64_t tag);
  /// The handshake that `startTLS` began is done.
  virtual void socketDidSecure(VELSocket& socket);
  /// Once, last: reads and writes still queued are dropped. No error when this side asked for it.
  virtual void socketDidDisconnect(VELSocket& socket, const std::optional<VELError>& error);
};

/// A TCP connection or listener whose events arrive on a serial queue.
///
/// ```cpp
/// auto queue = std::make_shared<VELSerialQueue>("org.example.client");
/// auto socket = VELSocket::socketWithDelegate({}, queue);
/// socket->connectToHost("localhost", 8080, std::chrono::seconds(5));
/// socket->writeData(VELData(std::string("PING\r\n")), std::chrono::seconds(30), 1);
/// socket->disconnectAfterWriting();
/// ```
/// Owner:   an open socket that waits for something stays alive by itself; dropping the last
///          reference of one that waits for nothing closes it.
/// Queue:   operations may be called on any thread; off the delegate queue they are posted to it, in
///          order.
/// Errors:  time-outs are negative for none, cover the whole read or write, and disconnect.
class CORVANE_EXPORT VELSocket {
 public:
  virtual ~VELSocket() = default;
  VELSocket(const VELSocket&) = delete;
  VELSocket& operator=(const VELSocket&) = delete;

  /// A socket that is neither listening nor connected.
  /// Owner:   holds `delegate` weakly.
  static std::shared_ptr<VELSocket> socketWithDelegate(
      std::weak_ptr<VELSocketDelegate> delegate, std::shared_ptr<VELSerialQueue> delegateQueue);

  /// The bytes CR LF.
  static const VELData& CRLFData();

  /// Listens on `port` (0: the system chooses) of `interface`.
  /// Shape:   an interface's name ("lo"), an address ("127.0.0.1", "::1"), "localhost" or "loopback"
  ///          for both loopback addresses, none for all interfaces, IPv4 and IPv6.
  /// Errors:  false, with `error` set.
  virtual bool acceptOnInterface(const std::optional<std::string>& interface, uint16_t port,
                                 VELError* error = nullptr) = 0;
  /// Begins to connect; `timeout` covers the look-up of the name and every address tried.
  /// Errors:  false, with `error` set, when it cannot begin; later ones through the delegate.
  virtual bool connectToHost(const std::string& host, uint16_t port,
                             std::chrono::milliseconds timeout, VELError* error = nullptr) = 0;

  /// Reads up to and including the next `terminator`.
  /// Errors:  disconnects when `maxLength` bytes (0: no limit) came without it.
  virtual void readDataToData(const VELData& terminator, std::chrono::milliseconds timeout,
                              size_t maxLength, int64_t tag) = 0;
  /// What has come already and no read has taken: whoever can use it spares a read for each piece.
  /// Owner:   the bytes live as long as the callback in which they were asked for, which may change them.
  /// Default: empty, as it also is while a read is queued.
  /// Queue:   the delegate queue, inside `socketDidReadData`.
  virtual std::span<char> inputAtHand() const { return {}; }
  /// Takes the first `length` bytes of `inputAtHand` away.
  virtual void takeInput(size_t /*length*/) {}
  /// A read that takes nothing: it completes without data once `length` bytes or more are at hand.
  /// Memory is taken for what has come, however much is waited for.
  virtual void waitForInput(size_t length, std::chrono::milliseconds timeout, int64_t tag) = 0;
  /// Reads exactly `length` bytes.
  virtual void readDataToLength(size_t length, std::chrono::milliseconds timeout, int64_t tag) = 0;
  /// Writes `data` after everything written before it.
  /// A small piece counts as written once a bounded buffer has taken it; its time-out goes on until
  /// the system has.
  virtual void writeData(VELData data, std::chrono::milliseconds timeout, int64_t tag) = 0;
  /// The same for `head` followed by `data`, as one write of which nothing is told. Data without a head are
  /// what many sockets are sent: they go out from where they are unless they wait behind other bytes.
  virtual void writeHeadAndData(std::string_view head, const VELData& data,
                                std::chrono::milliseconds timeout, int64_t tag);
  /// Secures the connection from here on; reads and writes issued later wait for the handshake,
  /// which has 30 seconds.
  virtual void startTLS(const VELTLSSettings& settings) = 0;

  /// Closes at once. A listening socket closes before the call returns.
  virtual void disconnect() = 0;
  /// Closes once everything written before has been taken by the system.
  virtual void disconnectAfterWriting() = 0;
  /// Announces that the peer may send what nobody is going to read. Once this side has disconnected
  /// after writing, that is still taken in for a moment, so that the peer does not lose what was
  /// written last (RFC 9112 §9.6).
  virtual void expectUnreadInput() {}

  /// Whether the connection ends, with `kVELSocketClosed`, as soon as the peer has closed its sending direction,
  /// even while no read waits.
  /// Default: false: a peer that has said all may still listen.
  /// Queue:   the delegate queue.
  virtual void setEndsWithPeer(bool /*endsWithPeer*/) {}

  /// Hands the socket to another delegate and queue. What was read ahead and what was queued goes
  /// along; no call reaches the former delegate afterwards.
  /// Queue:   the present delegate queue, or anywhere before the first read or write.
  virtual void setDelegate(std::weak_ptr<VELSocketDelegate> delegate,
                           std::shared_ptr<VELSerialQueue> delegateQueue) = 0;
  virtual std::shared_ptr<VELSerialQueue> delegateQueue() const = 0;

  /// Whether TLS was started.
  virtual bool isSecure() const = 0;
  virtual bool isConnected() const = 0;
  /// Bytes written that the system has not taken yet.
  /// Queue:   the delegate queue.
  virtual size_t unsentLength() const = 0;
  virtual VELSocketAddress localAddress() const = 0;
  virtual VELSocketAddress peerAddress() const = 0;
  /// The port of `localAddress`, 0 when neither listening nor connected.
  uint16_t localPort() const { return localAddress().port; }

 protected:
  VELSocket() = default;
};
