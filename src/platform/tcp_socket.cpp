#include "platform/tcp_socket.h"

#include <sys/socket.h>
#ifdef __linux__
#include <sys/sendfile.h>
#include <sys/syscall.h>
#endif
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "platform/connector.h"
#include "platform/file_region.h"
#include "platform/listener.h"
#include "platform/queue_runner.h"
#include "platform/socket_address.h"

namespace vel {
namespace {

// In a process with threads each call of recv(3) or send(3) is a point of cancellation, which costs four
// locked operations a request; nobody cancels these threads.
ptrdiff_t receiveFrom(int fd, void* buffer, size_t capacity) noexcept {
#ifdef __linux__
  return ::syscall(SYS_recvfrom, fd, buffer, capacity, 0, nullptr, nullptr);
#else
  return ::recv(fd, buffer, capacity, 0);
#endif
}

ptrdiff_t sendTo(int fd, const void* bytes, size_t length, int flags) noexcept {
#ifdef __linux__
  return ::syscall(SYS_sendto, fd, bytes, length, flags, nullptr, 0);
#else
  return ::send(fd, bytes, length, flags);
#endif
}

int sendFlags(bool has_more) noexcept {
#ifdef MSG_MORE
  if (has_more) return MSG_NOSIGNAL | MSG_MORE;
#endif
  return MSG_NOSIGNAL;
}

}  // namespace

TcpSocket::TcpSocket(std::weak_ptr<VELSocketDelegate> delegate,
                     std::shared_ptr<VELSerialQueue> queue)
    : StreamSocket(std::move(delegate), std::move(queue), State::kUnused) {}

TcpSocket::TcpSocket(int fd, std::shared_ptr<VELSerialQueue> queue)
    : StreamSocket({}, std::move(queue), State::kOpen), fd_(fd) {}

TcpSocket::~TcpSocket() {
  if (extras_ && extras_->listener && !queue_->isCurrent()) {
    // Its ports may be accepting just now; they find that the socket is gone, and close there.
    queue_->async([listener = std::move(extras_->listener)] {});
  }
  TcpSocket::closeTransport();
}

std::shared_ptr<TcpSocket> TcpSocket::self() {
  return std::static_pointer_cast<TcpSocket>(shared_from_this());
}

bool TcpSocket::acceptOnInterface(const std::optional<std::string>& interface, uint16_t port,
                                  VELError* error) {
  if (holdingFrame() == nullptr) {
    bool accepts = false;
    delegateQueue()->sync([&] { accepts = acceptOnInterface(interface, port, error); });
    return accepts;
  }
  if (state() != State::kUnused) {
    if (error)
      *error = VELError(VELSocketErrorDomain, kVELSocketBadConfiguration,
                        "The socket is in use already.");
    return false;
  }
  auto listener = std::make_shared<Listener>(self());
  if (!listener->open(interface, port, queue_, error)) return false;
  is_used_.store(true, std::memory_order_release);
  std::lock_guard lock(queueMutex());
  extras().listener = std::move(listener);
  state_ = State::kListening;
  return true;
}

bool TcpSocket::connectToHost(const std::string& host, uint16_t port,
                              std::chrono::milliseconds timeout, VELError* error) {
  State unused = State::kUnused;
  const bool can_connect = !host.empty() && port != 0;
  const bool in_use = can_connect ? !state_.compare_exchange_strong(unused, State::kConnecting)
                                  : state() != State::kUnused;
  if (in_use || !can_connect) {
    if (error) {
      *error = in_use ? VELError(VELSocketErrorDomain, kVELSocketBadConfiguration,
                                 "The socket is in use already.")
                      : VELError(VELSocketErrorDomain, kVELSocketBadParameter,
                                 "A connection needs a host name and a port.");
    }
    return false;
  }
  is_used_.store(true, std::memory_order_release);
  onQueue([this, connector = std::make_shared<Connector>(self(), host, port, timeout)](
              StreamSocket& /*itself*/) {
    if (state() != State::kConnecting) return connector->cancel();
    extras().connector = connector;
    connector->start();
  });
  return true;
}

void TcpSocket::stopListening() {
  const auto stop = [this] {
    std::shared_ptr<Listener> listener;
    {
      std::lock_guard lock(queueMutex());
      listener.swap(extras_->listener);
      if (listener) state_ = State::kUnused;
    }
    if (listener) listener->close();
  };
  queue_->isCurrent() ? stop() : queue_->sync(stop);
}

VELSocketAddress TcpSocket::localAddress() const {
  if (state() == State::kListening) {
    std::lock_guard lock(queueMutex());
    return extras_->listener ? extras_->listener->address() : VELSocketAddress{};
  }
  return localAddressOf(fd_.load());
}

VELSocketAddress TcpSocket::peerAddress() const { return peerAddressOf(fd_.load()); }

void TcpSocket::didAccept(int fd) {
  auto socket = std::make_shared<TcpSocket>(fd, queue_);
  if (const auto delegate = delegate_.lock())
    delegate->socketDidAcceptNewSocket(*this, std::move(socket));
}

void TcpSocket::didConnect(int fd, const std::string& host, uint16_t port) {
  const std::shared_ptr<Connector> keep = std::move(extras().connector);
  fd_ = fd;
  didOpen();
  if (const auto delegate = delegate_.lock()) delegate->socketDidConnectToHost(*this, host, port);
}

void TcpSocket::didFailToConnect(VELError error) {
  const std::shared_ptr<Connector> keep = std::move(extras().connector);
  onQueue([error = std::move(error)](StreamSocket& socket) {
    static_cast<TcpSocket&>(socket).end(error);
  });
}

ptrdiff_t TcpSocket::receiveBytes(void* buffer, size_t capacity) noexcept {
  ptrdiff_t got = 0;
  do {
    got = receiveFrom(fd_.load(std::memory_order_relaxed), buffer, capacity);
  } while (got < 0 && errno == EINTR);
  return got;
}

ptrdiff_t TcpSocket::sendBytes(const iovec* vectors, int count, bool has_more) noexcept {
  const int flags = sendFlags(has_more);
  ptrdiff_t sent = 0;
  do {
    if (count == 1) {
      sent = sendTo(fd_.load(std::memory_order_relaxed), vectors[0].iov_base, vectors[0].iov_len,
                    flags);
    } else {
      msghdr message{};
      message.msg_iov = const_cast<iovec*>(vectors);
      message.msg_iovlen = static_cast<size_t>(count);
      sent = ::sendmsg(fd_, &message, flags);
    }
  } while (sent < 0 && errno == EINTR);
  return sent;
}

ptrdiff_t TcpSocket::sendRegion(const RegionRest& rest) {
#ifdef __linux__
  // sendfile(2) cannot be told to spare the process SIGPIPE: it is for threads that have it blocked.
  if (ThreadRecord::current().blocks_signals) {
    auto position = static_cast<off_t>(rest.region->offset() + rest.location);
    ptrdiff_t sent = 0;
    do {
      sent = ::sendfile(fd_.load(std::memory_order_relaxed), rest.region->file().get(), &position,
                        rest.length);
    } while (sent < 0 && errno == EINTR);
    // A file that cannot be read has no bytes; one that cannot be sent like this can still be read.
    if (sent < 0 && (errno == EIO || errno == ESTALE)) return 0;
    if (sent >= 0 || (errno != EINVAL && errno != ENOSYS && errno != EOVERFLOW)) return sent;
  }
#endif
  return StreamSocket::sendRegion(rest);
}

void TcpSocket::finishSending() noexcept { ::shutdown(fd_, SHUT_WR); }

bool TcpSocket::watch(EventLoop& loop) noexcept { return loop.add(fd_, *this); }

// A copy of the descriptor would keep the registration alive.
void TcpSocket::stopWatching(EventLoop& loop) noexcept { loop.remove(fd_); }

void TcpSocket::closeTransport() noexcept {
  const int fd = fd_.exchange(-1);
  if (fd >= 0) ::close(fd);
}

}  // namespace vel

std::shared_ptr<VELSocket> VELSocket::socketWithDelegate(
    std::weak_ptr<VELSocketDelegate> delegate, std::shared_ptr<VELSerialQueue> delegateQueue) {
  return std::make_shared<vel::TcpSocket>(std::move(delegate), std::move(delegateQueue));
}
