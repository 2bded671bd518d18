#include "platform/connector.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/loop_pool.h"
#include "platform/queue_runner.h"
#include "platform/tcp_socket.h"

namespace vel {

Connector::Connector(std::shared_ptr<TcpSocket> socket, std::string host, uint16_t port,
                     std::chrono::milliseconds timeout)
    : socket_(std::move(socket)), host_(std::move(host)), port_(port), timeout_(timeout) {}

Connector::~Connector() { Deadline::remove(); }

void Connector::start() {
  if (timeout_.count() >= 0) {
    due_ = timeAfter(coarseNow(), timeout_);
    armAt(*socket_->queue_, due_);
  }
  // The system's look-up blocks; it gets a thread of its own.
  const auto look_up = [self = shared_from_this(), socket = socket_] {
    blockAllSignals();
    VELError error;
    std::vector<RawAddress> addresses = addressesOfHost(self->host_, self->port_, &error);
    socket->postCall([self, addresses = std::move(addresses), error = std::move(error)](
                         StreamSocket&) { self->lookUpDidEnd(addresses, error); });
  };
  try {
    std::thread(look_up).detach();
  } catch (const std::system_error& failure) {
    fail(VELError(VELPOSIXErrorDomain, failure.code().value(), failure.what()));
  }
}

void Connector::queueWillChange(EventLoop& from, EventLoop& to) {
  Deadline::remove();
  if (fd_ < 0 || &from == &to) return;
  from.remove(fd_);
  if (!to.add(fd_, *socket_)) fail(VELError(VELPOSIXErrorDomain, errno, std::strerror(errno)));
}

void Connector::queueDidChange() {
  if (due_ != kNever) armAt(*socket_->queue_, due_);
}

void Connector::cancel() {
  dropDescriptor();
  Deadline::remove();
  socket_.reset();
}

void Connector::lookUpDidEnd(std::vector<RawAddress> addresses, VELError error) {
  if (!socket_) return;
  if (addresses.empty()) return fail(std::move(error));
  addresses_ = std::move(addresses);
  tryNext();
}

void Connector::tryNext() {
  while (next_ < addresses_.size()) {
    const RawAddress& address = addresses_[next_++];
    fd_ = ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ >= 0) {
      const int on = 1;
      setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      const int result = connect(fd_, address.get(), address.length);
      if ((result == 0 || errno == EINPROGRESS) &&
          QueueRunner::loopOf(*socket_->queue_).add(fd_, *socket_)) {
        return;
      }
    }
    last_error_ = VELError(VELPOSIXErrorDomain, errno, std::strerror(errno));
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }
  fail(std::move(last_error_));
}

void Connector::dropDescriptor() {
  if (fd_ < 0) return;
  QueueRunner::loopOf(*socket_->queue_).remove(fd_);
  ::close(std::exchange(fd_, -1));
}

void Connector::handleReadiness(bool is_writable, bool has_failed) {
  if (fd_ < 0 || (!is_writable && !has_failed)) return;
  int error = 0;
  socklen_t length = sizeof error;
  getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length);
  if (error == 0 && peerAddressOf(fd_).port == 0) return;  // news of an earlier descriptor
  if (error == 0) {
    Deadline::remove();
    const std::shared_ptr<TcpSocket> socket = std::move(socket_);
    socket->didConnect(std::exchange(fd_, -1), host_, port_);
    return;
  }
  last_error_ = VELError(VELPOSIXErrorDomain, error, std::strerror(error));
  dropDescriptor();
  tryNext();
}

void Connector::fail(VELError error) {
  Deadline::remove();
  const std::shared_ptr<TcpSocket> socket = std::move(socket_);
  socket->didFailToConnect(std::move(error));
}

void Connector::deadlineDidFire() {
  if (!socket_) return;
  dropDescriptor();
  fail(VELError(VELSocketErrorDomain, kVELSocketConnectTimeout, "Connecting took too long."));
}

}  // namespace vel
