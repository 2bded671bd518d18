#include "platform/listener.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/queue_runner.h"
#include "platform/socket_address.h"
#include "platform/tcp_socket.h"

namespace vel {
namespace {

// Connections accepted in one go; the queue's other work comes between.
constexpr int kAcceptsPerRun = 64;
// Wait before trying again when descriptors or memory have run out.
constexpr auto kPause = std::chrono::milliseconds(100);
// Tries to find a port that is free on every address.
constexpr int kPortTries = 8;

// A listening descriptor. Returns -1 with errno set.
int listenOn(const RawAddress& address, bool is_dual_stack) {
  const int fd = ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const int on = 1;
  const int only_six = is_dual_stack ? 0 : 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // Accepted sockets inherit it: what is sent leaves at the end of each turn and waits for nothing.
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (address.family() == AF_INET6) {
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &only_six, sizeof only_six);
  }
  if (bind(fd, address.get(), address.length) != 0 || listen(fd, 4096) != 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

bool hasRunOut(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

// One listening descriptor. Lives until its loop can no longer name it.
class ListeningPort final : public EventSource, public std::enable_shared_from_this<ListeningPort> {
 public:
  ListeningPort(int fd, std::weak_ptr<TcpSocket> socket, std::shared_ptr<VELSerialQueue> queue)
      : fd_(fd), socket_(std::move(socket)), queue_(std::move(queue)) {
    setSourceQueue(queue_.get());
  }
  ~ListeningPort() override {
    if (fd_ >= 0) ::close(fd_);
  }

  bool open() {
    if (!QueueRunner::loopOf(*queue_).add(fd_, *this)) return false;
    self_ = shared_from_this();
    return true;
  }

  // Queue: the socket's.
  void close() {
    if (fd_ < 0) return;
    QueueRunner::loopOf(*queue_).remove(fd_);
    ::close(fd_);
    fd_ = -1;
    if (!self_ || !retire()) return;
    if (QueueFrame* frame = QueueFrame::heldByThisThread(queue_.get())) {
      frame->bury(std::move(self_));
    } else {
      // The loops have stopped: nobody runs the queue any more.
      QueueRunner::loopOf(*queue_).bury({std::move(self_)});
    }
  }

  void handleReadiness(uint32_t, QueueFrame&) override {
    // A socket that is gone has left its ports to the queue, which is about to close them.
    const std::shared_ptr<TcpSocket> socket = socket_.lock();
    if (paused_ || !socket) return;
    for (int i = 0; i < kAcceptsPerRun && fd_ >= 0; ++i) {
      const int fd = accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd >= 0) {
        hand(*socket, fd);
      } else if (hasRunOut(errno)) {
        return pause(errno);
      } else if (errno == EAGAIN) {
        return;
      }
      // Anything else concerns only the connection that was to be accepted.
    }
    if (fd_ >= 0) notify(kReadable);
  }

  void didRetire(QueueFrame& frame) override {
    if (self_) frame.bury(std::move(self_));
  }
  // The loops have stopped: nobody will come for the port any more.
  void dropNode() noexcept override { const std::shared_ptr<ListeningPort> end = std::move(self_); }

 private:
  // The connections behind one whose delegate throws still get their turn.
  void hand(TcpSocket& socket, int fd) {
    try {
      socket.didAccept(fd);
    } catch (...) {
      if (fd_ >= 0) notify(kReadable);
      throw;
    }
  }

  void pause(int error) {
    if (!pause_was_logged_) {
      logLine(std::string("Accepting connections pauses: ") + std::strerror(error));
    }
    pause_was_logged_ = true;
    paused_ = true;
    queue_->after(kPause, [port = shared_from_this()] {
      port->paused_ = false;
      if (port->fd_ >= 0) port->notify(kReadable);
    });
  }

  int fd_;
  const std::weak_ptr<TcpSocket> socket_;
  const std::shared_ptr<VELSerialQueue> queue_;
  bool paused_ = false;
  bool pause_was_logged_ = false;
  std::shared_ptr<ListeningPort> self_;
};

Listener::~Listener() { close(); }

void Listener::close() {
  for (const auto& port : ports_) port->close();
  ports_.clear();
  for (const int fd : opened_) ::close(fd);
  opened_.clear();
}

bool Listener::openAll(std::vector<RawAddress>& addresses, uint16_t port, int* error_number) {
  for (RawAddress& address : addresses) {
    address.setPort(port);
    const auto* six = reinterpret_cast<const sockaddr_in6*>(&address.storage);
    const bool is_dual_stack =
        address.family() == AF_INET6 && IN6_IS_ADDR_UNSPECIFIED(&six->sin6_addr) != 0;
    const int fd = listenOn(address, is_dual_stack && addresses.size() == 1);
    if (fd >= 0) {
      opened_.push_back(fd);
      if (port == 0) port = localAddressOf(fd).port;
      continue;
    }
    *error_number = errno;
    // A machine without IPv6 still has its IPv4 loopback.
    const bool is_missing = *error_number == EAFNOSUPPORT || *error_number == EADDRNOTAVAIL;
    if (is_missing && addresses.size() > 1) continue;
    close();
    return false;
  }
  return !opened_.empty();
}

bool Listener::open(const std::optional<std::string>& interface, uint16_t port,
                    const std::shared_ptr<VELSerialQueue>& queue, VELError* error) {
  std::vector<RawAddress> addresses;
  if (interface && !interface->empty()) {
    addresses = addressesOfInterface(*interface, error);
  } else {
    addresses = addressesOfInterface("::", error);
  }
  if (addresses.empty()) return false;
  int error_number = 0;
  bool is_open = openAll(addresses, port, &error_number);
  // The port that the system chose for one address may be taken on another.
  for (int i = 1; !is_open && port == 0 && error_number == EADDRINUSE && i < kPortTries; ++i) {
    is_open = openAll(addresses, port, &error_number);
  }
  if (!is_open && (!interface || interface->empty()) &&
      (error_number == EAFNOSUPPORT || error_number == EADDRNOTAVAIL)) {
    addresses = addressesOfInterface("0.0.0.0", error);
    is_open = openAll(addresses, port, &error_number);
  }
  if (!opened_.empty()) address_ = localAddressOf(opened_.front());
  for (const int fd : opened_) {
    ports_.push_back(std::make_shared<ListeningPort>(fd, socket_, queue));
  }
  opened_.clear();
  for (const auto& listening : ports_) {
    if (!is_open) break;
    is_open = listening->open();
    error_number = errno;
  }
  if (!is_open) {
    close();
    if (error) *error = VELError(VELPOSIXErrorDomain, error_number, std::strerror(error_number));
  }
  return is_open;
}

}  // namespace vel
