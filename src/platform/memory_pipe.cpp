#include "platform/memory_pipe.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "platform/event_loop.h"

namespace vel {
namespace {

// A sender that filled the pipe is told once no more than this part of it is taken, as sockets do it.
constexpr size_t kTellBelowPart = 3;

}  // namespace

struct MemoryEnd::Pipe {
  // What one end has sent and the other has not received.
  struct Direction {
    std::string bytes;
    size_t received = 0;
    bool is_finished = false;
    bool was_full = false;

    size_t waiting() const noexcept { return bytes.size() - received; }
  };
  struct Side {
    EventSource* source = nullptr;
    bool is_closed = false;
    bool was_reset = false;
  };

  // Guards all of it. A source is told under it, so that it cannot go away meanwhile: telling only posts.
  std::mutex mutex;
  size_t capacity = 0;
  // Indexed by the end that sends, and by the end.
  std::array<Direction, 2> directions;
  std::array<Side, 2> sides;

  void tell(size_t side, uint32_t readiness) {
    if (EventSource* source = sides[side].source) source->notify(readiness);
  }
};

std::pair<std::unique_ptr<MemoryEnd>, std::unique_ptr<MemoryEnd>> MemoryEnd::makePipe(
    size_t capacity) {
  auto pipe = std::make_shared<Pipe>();
  pipe->capacity = std::max<size_t>(capacity, 1);
  return {std::unique_ptr<MemoryEnd>(new MemoryEnd(pipe, 0)),
          std::unique_ptr<MemoryEnd>(new MemoryEnd(pipe, 1))};
}

MemoryEnd::~MemoryEnd() { close(); }

ptrdiff_t MemoryEnd::receive(void* buffer, size_t capacity) noexcept {
  const std::lock_guard lock(pipe_->mutex);
  Pipe::Direction& incoming = pipe_->directions[1 - side_];
  const size_t length = std::min(capacity, incoming.waiting());
  if (length == 0) {
    if (std::exchange(pipe_->sides[side_].was_reset, false)) {
      errno = ECONNRESET;
      return -1;
    }
    if (incoming.is_finished) return 0;
    errno = EAGAIN;
    return -1;
  }
  incoming.bytes.copy(static_cast<char*>(buffer), length, incoming.received);
  incoming.received += length;
  if (incoming.received >= incoming.waiting()) {
    incoming.bytes.erase(0, incoming.received);
    incoming.received = 0;
  }
  if (incoming.was_full && incoming.waiting() <= pipe_->capacity / kTellBelowPart) {
    incoming.was_full = false;
    pipe_->tell(1 - side_, kWritable);
  }
  return static_cast<ptrdiff_t>(length);
}

ptrdiff_t MemoryEnd::send(const iovec* vectors, int count) noexcept {
  const std::lock_guard lock(pipe_->mutex);
  Pipe::Direction& outgoing = pipe_->directions[side_];
  if (outgoing.is_finished || pipe_->sides[1 - side_].is_closed) {
    errno = EPIPE;
    return -1;
  }
  size_t sent = 0;
  try {
    for (int i = 0; i < count; ++i) {
      const size_t room = pipe_->capacity - std::min(pipe_->capacity, outgoing.waiting());
      const size_t length = std::min(room, vectors[i].iov_len);
      outgoing.bytes.append(static_cast<const char*>(vectors[i].iov_base), length);
      sent += length;
      if (length < vectors[i].iov_len) outgoing.was_full = true;
    }
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
  if (sent > 0) {
    pipe_->tell(1 - side_, kReadable);
  } else if (outgoing.was_full) {
    errno = EAGAIN;
    return -1;
  }
  return static_cast<ptrdiff_t>(sent);
}

void MemoryEnd::finishSending() noexcept {
  const std::lock_guard lock(pipe_->mutex);
  if (std::exchange(pipe_->directions[side_].is_finished, true)) return;
  pipe_->tell(1 - side_, kReadable | kPeerFinished);
}

void MemoryEnd::close() noexcept {
  const std::lock_guard lock(pipe_->mutex);
  end(pipe_->directions[1 - side_].waiting() > 0);
}

void MemoryEnd::reset() noexcept {
  const std::lock_guard lock(pipe_->mutex);
  if (!pipe_->sides[side_].is_closed) pipe_->directions[side_] = Pipe::Direction();
  end(true);
}

void MemoryEnd::end(bool is_reset) noexcept {
  if (std::exchange(pipe_->sides[side_].is_closed, true)) return;
  pipe_->sides[side_].source = nullptr;
  pipe_->directions[1 - side_] = Pipe::Direction();
  for (Pipe::Direction& direction : pipe_->directions) direction.is_finished = true;
  pipe_->sides[1 - side_].was_reset = is_reset;
  pipe_->tell(1 - side_, kReadable | kPeerFinished | (is_reset ? kWritable | kHungUp : 0U));
}

void MemoryEnd::watch(EventSource* source) noexcept {
  const std::lock_guard lock(pipe_->mutex);
  pipe_->sides[side_].source = source;
  const Pipe::Direction& incoming = pipe_->directions[1 - side_];
  uint32_t readiness = 0;
  if (incoming.waiting() > 0) readiness |= kReadable;
  if (incoming.is_finished) readiness |= kReadable | kPeerFinished;
  if (pipe_->sides[side_].was_reset) readiness |= kReadable | kWritable | kHungUp;
  if (!pipe_->directions[side_].was_full) readiness |= kWritable;
  if (readiness != 0) pipe_->tell(side_, readiness);
}

}  // namespace vel
