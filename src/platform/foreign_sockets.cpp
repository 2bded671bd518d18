#include "platform/foreign_sockets.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <span>
#include <utility>

#include "platform/queue_runner.h"

namespace vel {
namespace {

// Served in one go. The loop's other sources have their turn in between.
constexpr int kServedPerRun = 16;

uint32_t readinessOf(uint32_t events) noexcept {
  uint32_t readiness = 0;
  if (events & EPOLLIN) readiness |= kReadable;
  if (events & EPOLLOUT) readiness |= kWritable;
  if (events & (EPOLLERR | EPOLLHUP)) readiness |= kHungUp;
  return readiness;
}

}  // namespace

ForeignSockets::ForeignSockets(std::weak_ptr<Observer> observer,
                               std::shared_ptr<VELSerialQueue> queue)
    : observer_(std::move(observer)), queue_(std::move(queue)) {
  setSourceQueue(queue_.get());
}

ForeignSockets::~ForeignSockets() {
  if (epoll_ >= 0) ::close(epoll_);
}

bool ForeignSockets::open() {
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0 || !QueueRunner::loopOf(*queue_).add(epoll_, *this)) return false;
  self_ = shared_from_this();
  return true;
}

void ForeignSockets::close() {
  if (epoll_ < 0) return;
  QueueRunner::loopOf(*queue_).remove(epoll_);
  ::close(std::exchange(epoll_, -1));
  if (!self_ || !retire()) return;
  if (QueueFrame* frame = QueueFrame::heldByThisThread(queue_.get())) {
    frame->bury(std::move(self_));
  } else {
    // The loops have stopped: nobody runs the queue any more.
    QueueRunner::loopOf(*queue_).bury({std::move(self_)});
  }
}

void ForeignSockets::watch(int fd, uint32_t readiness, bool is_known) noexcept {
  if (epoll_ < 0) return;
  epoll_event event{};
  if (readiness & kReadable) event.events |= EPOLLIN;
  if (readiness & kWritable) event.events |= EPOLLOUT;
  event.data.fd = fd;
  const int operation = event.events == 0 ? EPOLL_CTL_DEL
                        : is_known        ? EPOLL_CTL_MOD
                                          : EPOLL_CTL_ADD;
  ::epoll_ctl(epoll_, operation, fd, &event);
}

void ForeignSockets::handleReadiness(uint32_t /*readiness*/, QueueFrame& /*frame*/) {
  const std::shared_ptr<Observer> observer = observer_.lock();
  if (!observer) return;
  // The loop tells changes only: what is ready still must be asked for until there is none.
  std::array<epoll_event, kServedPerRun> events;
  for (int served = 0; served < kServedPerRun;) {
    const int count = ::epoll_wait(epoll_, events.data(), kServedPerRun - served, 0);
    if (count <= 0) return;
    for (const epoll_event& event : std::span(events.data(), static_cast<size_t>(count))) {
      observer->socketIsReady(event.data.fd, readinessOf(event.events));
    }
    observer->socketsWereServed();
    if (epoll_ < 0) return;
    served += count;
  }
  notify(kServe);
}

void ForeignSockets::didRetire(QueueFrame& frame) {
  if (self_) frame.bury(std::move(self_));
}

}  // namespace vel
