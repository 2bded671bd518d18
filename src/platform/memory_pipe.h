// MemoryPipe: a connection within the process. Its two ends behave as those of a TCP connection do.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <utility>

namespace vel {

class EventSource;

/// One end of a pipe that carries bytes both ways.
/// Errors:  operations that move bytes return -1 and set errno, as recv(2) and send(2) on a descriptor
///          that does not block.
/// Queue:   any; each operation is whole.
class MemoryEnd {
 public:
  /// What one direction holds unless it is told otherwise, as much as sockets usually do.
  static constexpr size_t kCapacity = 256 * 1024;

  /// Two ends of a new pipe that holds up to `capacity` bytes each way.
  static std::pair<std::unique_ptr<MemoryEnd>, std::unique_ptr<MemoryEnd>> makePipe(
      size_t capacity = kCapacity);

  /// Closes.
  ~MemoryEnd();
  MemoryEnd(const MemoryEnd&) = delete;
  MemoryEnd& operator=(const MemoryEnd&) = delete;

  /// Takes what has come. Returns 0 at the end of what the other end sends.
  ptrdiff_t receive(void* buffer, size_t capacity) noexcept;
  /// Gives the other end as much as there is room for.
  ptrdiff_t send(const iovec* vectors, int count) noexcept;
  /// Ends this direction: the other end finds an end behind what was sent.
  void finishSending() noexcept;
  /// Ends both directions. The other end receives what was sent, and then, when bytes for this one were not
  /// received, a reset in place of the end.
  void close() noexcept;
  /// Ends both directions; the other end sees a reset and loses what it has not received.
  void reset() noexcept;
  /// Has `source` told of readiness from now on, the present one included; none ends it.
  void watch(EventSource* source) noexcept;

 private:
  struct Pipe;
  // With the pipe's lock held.
  void end(bool is_reset) noexcept;

  MemoryEnd(std::shared_ptr<Pipe> pipe, size_t side) : pipe_(std::move(pipe)), side_(side) {}

  const std::shared_ptr<Pipe> pipe_;
  const size_t side_;
};

}  // namespace vel
