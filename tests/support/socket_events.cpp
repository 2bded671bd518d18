#include "support/socket_events.h"

#include <stdexcept>
#include <utility>

#include "platform/clock.h"

namespace vel::test {

std::vector<std::string> SocketEvents::all() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

std::vector<std::string> SocketEvents::those(std::string_view start) const {
  std::vector<std::string> found = all();
  std::erase_if(found, [start](const std::string& event) { return !event.starts_with(start); });
  return found;
}

std::string SocketEvents::await(std::string_view start, size_t count) const {
  std::unique_lock lock(mutex_);
  const auto limit = std::chrono::system_clock::now() + std::chrono::seconds(60);
  size_t looked_at = 0;
  size_t seen = 0;
  while (true) {
    for (; looked_at < events_.size(); ++looked_at) {
      if (events_[looked_at].starts_with(start) && ++seen == count) return events_[looked_at];
    }
    if (condition_.wait_until(lock, limit) == std::cv_status::timeout) return {};
  }
}

std::string SocketEvents::bytesRead() const {
  const std::lock_guard lock(mutex_);
  return bytes_read_;
}

std::shared_ptr<VELSocket> SocketEvents::accepted() const {
  const std::lock_guard lock(mutex_);
  return accepted_;
}

void SocketEvents::socketDidAcceptNewSocket(VELSocket& socket,
                                            std::shared_ptr<VELSocket> newSocket) {
  {
    const std::lock_guard lock(mutex_);
    accepted_ = std::move(newSocket);
  }
  keep(socket, "accepted");
}

void SocketEvents::socketDidConnectToHost(VELSocket& socket, const std::string& host, uint16_t) {
  keep(socket, "connected " + host);
}

void SocketEvents::socketDidReadData(VELSocket& socket, const VELData& data, int64_t tag) {
  {
    const std::lock_guard lock(mutex_);
    bytes_read_.append(data.view());
  }
  const std::string_view shown = data.view().substr(0, 200);
  keep(socket, "read " + std::to_string(tag) + " " + std::string(shown));
}

void SocketEvents::socketDidWriteDataWithTag(VELSocket& socket, int64_t tag) {
  keep(socket, "wrote " + std::to_string(tag));
}

void SocketEvents::socketDidSecure(VELSocket& socket) { keep(socket, "secured"); }

void SocketEvents::socketDidDisconnect(VELSocket& socket, const std::optional<VELError>& error) {
  std::string event = "ended";
  if (error) {
    std::string domain = error->domain();
    domain.resize(domain.size() - std::string_view("ErrorDomain").size());
    event += " " + domain + " " + std::to_string(error->code());
  }
  keep(socket, event);
  const std::lock_guard lock(mutex_);
  has_ended_ = true;
}

void SocketEvents::keep(VELSocket& socket, std::string event) {
  const bool is_on_queue = socket.delegateQueue()->isCurrent();
  {
    const std::lock_guard lock(mutex_);
    events_.push_back(is_on_queue && !has_ended_ ? event : "misplaced " + event);
    condition_.notify_all();
  }
  if (reaction) reaction(socket, event);
}

ListeningSocket::ListeningSocket(const std::shared_ptr<VELEventLoops>& loops)
    : queue(std::make_shared<VELSerialQueue>("listening", loops)),
      socket(VELSocket::socketWithDelegate(events, queue)) {
  VELError error;
  if (!socket->acceptOnInterface("127.0.0.1", 0, &error)) {
    throw std::runtime_error(error.description());
  }
}

std::shared_ptr<VELSocket> ListeningSocket::accepted(size_t count) const {
  if (events->await("accepted", count).empty()) throw std::runtime_error("nothing was accepted");
  return events->accepted();
}

ServedSocket::ServedSocket(const std::shared_ptr<VELEventLoops>& loops, int peer_receive_buffer)
    : queue(std::make_shared<VELSerialQueue>("served", loops)), peer(-1) {
  const ListeningSocket listening(loops);
  peer = peer_receive_buffer == 0 ? SocketPeer::connectedTo(listening.port())
                                  : SocketPeer::slowReaderAt(listening.port(), peer_receive_buffer);
  socket = listening.accepted();
  socket->setDelegate(events, queue);
}

ServedSocket::~ServedSocket() {
  queue->sync([this] {
    events->reaction = nullptr;
    if (socket) socket->disconnect();
  });
}

void passTime(VELSerialQueue& queue, std::chrono::milliseconds time) {
  advanceClock(time);
  queue.async([] {});
}

}  // namespace vel::test
