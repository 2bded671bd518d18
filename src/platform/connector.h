// Connector: connects one socket: looks the name up and tries its addresses in turn.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "corvane/error.h"
#include "platform/deadline.h"
#include "platform/socket_address.h"

namespace vel {

class EventLoop;
class TcpSocket;

/// Owner:   its socket; the thread that looks the name up holds both.
/// Queue:   the socket's.
class Connector final : private Deadline, public std::enable_shared_from_this<Connector> {
 public:
  Connector(std::shared_ptr<TcpSocket> socket, std::string host, uint16_t port,
            std::chrono::milliseconds timeout);
  ~Connector() override;

  /// Begins.
  void start();
  /// Ends without a word.
  void cancel();
  /// The descriptor at hand has become writable or failed.
  void handleReadiness(bool is_writable, bool has_failed);
  /// The socket is about to go to a queue of the loop `to`.
  void queueWillChange(EventLoop& from, EventLoop& to);
  /// It has arrived.
  void queueDidChange();

 private:
  void lookUpDidEnd(std::vector<RawAddress> addresses, VELError error);
  void tryNext();
  void dropDescriptor();
  void fail(VELError error);
  void deadlineDidFire() override;
  std::shared_ptr<void> deadlineOwner() override { return weak_from_this().lock(); }

  // Until the connection stands or has failed.
  std::shared_ptr<TcpSocket> socket_;
  const std::string host_;
  const uint16_t port_;
  const std::chrono::milliseconds timeout_;
  MonotonicTime due_ = kNever;
  std::vector<RawAddress> addresses_;
  size_t next_ = 0;
  int fd_ = -1;
  VELError last_error_;
};

}  // namespace vel
