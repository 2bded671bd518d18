// ForeignSockets: the sockets of a library that wants to be told when they are ready, on a serial queue.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/event_loop.h"

namespace vel {

/// Watches descriptors that somebody else opens, uses and closes. Readiness is told by level: again and
/// again until there is none. All of them stand behind one descriptor that the loop knows.
/// Owner:   the observer, and itself until it has been closed.
/// Queue:   the one that it was made for.
class ForeignSockets final : public EventSource,
                             public std::enable_shared_from_this<ForeignSockets> {
 public:
  class Observer {
   public:
    virtual ~Observer() = default;
    /// Shape:   `kReadable`, `kWritable` and `kHungUp` of `Readiness`, combined.
    virtual void socketIsReady(int fd, uint32_t readiness) = 0;
    /// All sockets that were found ready have been told.
    virtual void socketsWereServed() = 0;
  };

  ForeignSockets(std::weak_ptr<Observer> observer, std::shared_ptr<VELSerialQueue> queue);
  ~ForeignSockets() override;

  /// Errors:  false, with errno.
  bool open();
  void close();
  /// Says what of `fd`, which is watched already if it `is_known`, is to be told; nothing forgets it.
  void watch(int fd, uint32_t readiness, bool is_known) noexcept;

  void handleReadiness(uint32_t readiness, QueueFrame& frame) override;
  void didRetire(QueueFrame& frame) override;
  void dropNode() noexcept override {
    const std::shared_ptr<ForeignSockets> end = std::move(self_);
  }

 private:
  const std::weak_ptr<Observer> observer_;
  const std::shared_ptr<VELSerialQueue> queue_;
  int epoll_ = -1;
  // Keeps it while events can name it.
  std::shared_ptr<ForeignSockets> self_;
};

}  // namespace vel
