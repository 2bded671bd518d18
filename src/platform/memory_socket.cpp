#include "platform/memory_socket.h"

namespace vel {
namespace {

bool isInUse(VELError* error) {
  if (error) {
    *error =
        VELError(VELSocketErrorDomain, kVELSocketBadConfiguration, "The socket is in use already.");
  }
  return false;
}

}  // namespace

MemorySocket::MemorySocket(std::unique_ptr<MemoryEnd> end, std::shared_ptr<VELSerialQueue> queue)
    : StreamSocket({}, std::move(queue), State::kOpen), end_(std::move(end)) {}

MemorySocket::~MemorySocket() { end_->close(); }

bool MemorySocket::acceptOnInterface(const std::optional<std::string>& /*interface*/,
                                     uint16_t /*port*/, VELError* error) {
  return isInUse(error);
}

bool MemorySocket::connectToHost(const std::string& /*host*/, uint16_t /*port*/,
                                 std::chrono::milliseconds /*timeout*/, VELError* error) {
  return isInUse(error);
}

ptrdiff_t MemorySocket::receiveBytes(void* buffer, size_t capacity) noexcept {
  return end_->receive(buffer, capacity);
}

ptrdiff_t MemorySocket::sendBytes(const iovec* vectors, int count, bool /*has_more*/) noexcept {
  return end_->send(vectors, count);
}

bool MemorySocket::watch(EventLoop& /*loop*/) noexcept {
  end_->watch(this);
  return true;
}

void MemorySocket::stopWatching(EventLoop& /*loop*/) noexcept { end_->watch(nullptr); }

}  // namespace vel
