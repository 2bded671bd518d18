#include "platform/event_loop.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/loop_pool.h"
#include "platform/watcher.h"

namespace vel {

struct EventLoop::Listing {
  std::shared_ptr<VELSerialQueue> queue;
  Listing* next = nullptr;
};

struct EventLoop::Batch {
  static constexpr int kCapacity = 128;
  std::array<epoll_event, kCapacity> events;
};

namespace {

// Stands in the list of posted queues while the driving thread waits: who posts onto it has to wake it.
template <class T>
T* asleep() noexcept {
  return reinterpret_cast<T*>(uintptr_t{1});
}

constexpr uint64_t wordOf(uint64_t beat, LoopState state) noexcept {
  return beat * 4 + static_cast<uint64_t>(state);
}

uint32_t readinessOf(uint32_t events) noexcept {
  uint32_t readiness = 0;
  if (events & EPOLLIN) readiness |= kReadable;
  if (events & EPOLLOUT) readiness |= kWritable;
  if (events & EPOLLRDHUP) readiness |= kReadable | kPeerFinished;
  if (events & (EPOLLHUP | EPOLLERR)) readiness |= kReadable | kWritable | kHungUp;
  return readiness;
}

}  // namespace

void EventSource::notify(uint32_t readiness) {
  VELSerialQueue* queue = sourceQueue();
  if (pending_.fetch_or(readiness, std::memory_order_acq_rel) == 0)
    QueueRunner::post(*queue, *this);
}

bool EventSource::retire() noexcept {
  return pending_.fetch_or(kRetired, std::memory_order_acq_rel) == 0;
}

void EventSource::runNode(QueueFrame& frame) {
  VELSerialQueue* queue = sourceQueue();
  if (queue != frame.queue && (pending_.load(std::memory_order_acquire) & kRetired) == 0) {
    // The source went to another queue while this was on its way. What is pending stays so: the source
    // cannot retire there and be freed before its node has come.
    QueueRunner::post(*queue, *this);
    return;
  }
  const uint32_t readiness = pending_.fetch_and(kRetired, std::memory_order_acq_rel);
  if (readiness & kRetired) {
    didRetire(frame);
  } else {
    handleReadiness(readiness, frame);
  }
}

EventLoop::EventLoop(LoopPool& pool)
    : pool_(pool),
      wheel_(*this),
      word_(wordOf(0, LoopState::kTaken)),
      batch_(std::make_unique<Batch>()) {
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;  // never read: each write is an edge of its own
  if (epoll_ < 0 || wake_ < 0 || epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event) != 0) {
    const int error = errno;
    if (epoll_ >= 0) close(epoll_);
    if (wake_ >= 0) close(wake_);
    throw std::system_error(error, std::generic_category(), "event loop");
  }
}

EventLoop::~EventLoop() {
  close(wake_);
  close(epoll_);
}

bool EventLoop::add(int fd, EventSource& source) noexcept {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
  event.data.ptr = &source;
  return epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0;
}

void EventLoop::remove(int fd) noexcept { epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr); }

void EventLoop::list(std::shared_ptr<VELSerialQueue> queue) {
  auto* listing = new Listing{std::move(queue)};
  Listing* newest = posted_.load(std::memory_order_relaxed);
  do {
    listing->next = newest == asleep<Listing>() ? nullptr : newest;
  } while (!posted_.compare_exchange_weak(newest, listing, std::memory_order_seq_cst,
                                          std::memory_order_relaxed));
  if (newest == asleep<Listing>()) wake();
  if (is_dropped_.load(std::memory_order_seq_cst)) dropPosted();
}

void EventLoop::wakeIfAsleep() noexcept {
  Listing* newest = asleep<Listing>();
  if (posted_.compare_exchange_strong(newest, nullptr, std::memory_order_seq_cst)) wake();
}

void EventLoop::wake() noexcept {
  const uint64_t one = 1;
  while (write(wake_, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void EventLoop::bury(std::vector<std::shared_ptr<void>> objects) {
  {
    std::lock_guard lock(graves_mutex_);
    std::move(objects.begin(), objects.end(), std::back_inserter(graves_));
    has_graves_.store(true, std::memory_order_seq_cst);
  }
  if (is_dropped_.load(std::memory_order_seq_cst)) return takeGraves().clear();
  wakeIfAsleep();
}

// Taken between two batches, never inside: who has lost the loop must not take what an event of a later
// batch can name.
std::vector<std::shared_ptr<void>> EventLoop::takeGraves() noexcept {
  std::vector<std::shared_ptr<void>> graves;
  std::lock_guard lock(graves_mutex_);
  graves.swap(graves_);
  has_graves_.store(false, std::memory_order_relaxed);
  return graves;
}

/// Runs `work` as one handler; false when the loop was taken meanwhile and must not be touched any more.
template <class Work>
bool EventLoop::inside(Work&& work) {
  const uint64_t beat = ++beat_;
  word_.store(wordOf(beat, LoopState::kIn), std::memory_order_release);
  work();
  uint64_t expected = wordOf(beat, LoopState::kIn);
  return word_.compare_exchange_strong(expected, wordOf(beat, LoopState::kOut),
                                       std::memory_order_acquire, std::memory_order_acquire);
}

bool EventLoop::dispatchEvent(EventSource& source, uint32_t readiness, ThreadRecord& thread) {
  VELSerialQueue* queue = source.sourceQueue();
  if (!QueueRunner::tryHold(*queue)) {
    source.notify(readiness);
    return true;
  }
  return inside([&] { QueueRunner::runAndFree(*queue, &source, readiness, thread); });
}

bool EventLoop::dispatchBatch(ThreadRecord& thread) {
  const int count = batch_count_.load(std::memory_order_relaxed);
  for (int i = batch_index_.load(std::memory_order_relaxed); i < count; ++i) {
    batch_index_.store(i + 1, std::memory_order_relaxed);
    const epoll_event event = batch_->events[static_cast<size_t>(i)];
    if (event.data.ptr == nullptr) continue;  // only a wake-up
    auto& source = *static_cast<EventSource*>(event.data.ptr);
    if (!dispatchEvent(source, readinessOf(event.events), thread)) return false;
  }
  return true;
}

void EventLoop::takePosted() noexcept {
  Listing* newest = posted_.exchange(nullptr, std::memory_order_acquire);
  if (newest == nullptr || newest == asleep<Listing>()) return;
  Listing* oldest = nullptr;
  for (Listing* listing = newest; listing != nullptr;) {
    Listing* next = listing->next;
    listing->next = oldest;
    oldest = listing;
    listing = next;
  }
  if (listed_first_.load(std::memory_order_relaxed) == nullptr) {
    listed_first_.store(oldest, std::memory_order_relaxed);
  } else {
    listed_last_->next = oldest;
  }
  listed_last_ = newest;
}

// Runs the queues that were listed when this began; what is listed meanwhile waits for the next round, so
// that sockets get their turn.
bool EventLoop::runListed(ThreadRecord& thread) {
  takePosted();
  while (Listing* listing = listed_first_.load(std::memory_order_relaxed)) {
    listed_first_.store(listing->next, std::memory_order_relaxed);
    const bool kept = inside([listing, &thread] {
      const std::unique_ptr<Listing> owned(listing);
      VELSerialQueue& queue = *owned->queue;
      if (QueueRunner::holdListed(queue)) QueueRunner::runAndFree(queue, nullptr, 0, thread);
    });
    if (!kept) return false;
  }
  return true;
}

int EventLoop::waitingTime() const noexcept {
  const MonotonicTime due = wheel_.nextDue();
  if (due == kNever) return -1;
  const MonotonicTime rest = due - coarseNow();
  if (rest <= 0) return 0;
  return static_cast<int>(std::min<MonotonicTime>((rest + 999'999) / 1'000'000, 60'000));
}

// Gets the next batch; waits for it that long at the most, -1 standing for no limit.
void EventLoop::wait(int most_milliseconds) {
  Listing* none = nullptr;
  const bool waits =
      most_milliseconds != 0 && !stop_.load(std::memory_order_relaxed) && waitingTime() != 0 &&
      posted_.compare_exchange_strong(none, asleep<Listing>(), std::memory_order_seq_cst);
  if (waits) word_.store(wordOf(beat_, LoopState::kIdle), std::memory_order_release);
  // These are looked up again: a deadline armed, or a grave made, before the marker stood found nobody
  // to wake.
  const bool has_graves = has_graves_.load(std::memory_order_seq_cst);
  int time = waits && !has_graves ? waitingTime() : 0;
  if (most_milliseconds >= 0 && (time < 0 || time > most_milliseconds)) time = most_milliseconds;
  const int count = epoll_wait(epoll_, batch_->events.data(), Batch::kCapacity, time);
  if (waits) {
    word_.exchange(wordOf(beat_, LoopState::kOut), std::memory_order_seq_cst);
    pool_.watcher().noteActivity();
    Listing* marker = asleep<Listing>();
    posted_.compare_exchange_strong(marker, nullptr, std::memory_order_relaxed);
  }
  batch_index_.store(0, std::memory_order_relaxed);
  batch_count_.store(std::max(count, 0), std::memory_order_relaxed);
}

void EventLoop::drive(ThreadRecord& thread) {
  word_.store(wordOf(beat_, LoopState::kOut), std::memory_order_release);
  pool_.watcher().noteActivity();
  while (!stop_.load(std::memory_order_relaxed)) {
    if (!runTurn(thread)) return;
    wait(-1);
  }
}

// Runs all that is ready; false when the loop was taken meanwhile.
bool EventLoop::runTurn(ThreadRecord& thread) {
  if (!dispatchBatch(thread) || !runListed(thread)) return false;
  if (coarseNow() >= wheel_.nextDue()) {
    wheel_.fire(coarseNow());
    if (!runListed(thread)) return false;
  }
  if (!has_graves_.load(std::memory_order_acquire)) return true;
  // What lies there may run code of the host when it goes away.
  std::vector<std::shared_ptr<void>> graves = takeGraves();
  return inside([&graves] { graves.clear(); });
}

bool EventLoop::driveUntilIdle(ThreadRecord& thread, int turns) {
  word_.store(wordOf(beat_, LoopState::kOut), std::memory_order_release);
  for (int i = 0; i < turns; ++i) {
    wait(0);
    const bool is_idle = batch_count_.load(std::memory_order_relaxed) == 0 &&
                         posted_.load(std::memory_order_acquire) == nullptr &&
                         listed_first_.load(std::memory_order_relaxed) == nullptr &&
                         !has_graves_.load(std::memory_order_acquire) &&
                         coarseNow() < wheel_.nextDue();
    if (is_idle) return true;
    runTurn(thread);
  }
  return false;
}

void EventLoop::driveOnce(ThreadRecord& thread, std::chrono::milliseconds most) {
  word_.store(wordOf(beat_, LoopState::kOut), std::memory_order_release);
  wait(static_cast<int>(most.count()));
  runTurn(thread);
}

void EventLoop::requestStop() noexcept {
  stop_.store(true, std::memory_order_seq_cst);
  wake();
}

void EventLoop::dropWork() noexcept {
  is_dropped_.store(true, std::memory_order_seq_cst);
  while (Listing* listing = listed_first_.load(std::memory_order_relaxed)) {
    listed_first_.store(listing->next, std::memory_order_relaxed);
    const std::unique_ptr<Listing> owned(listing);
    QueueRunner::dropListed(*owned->queue);
  }
  dropPosted();
  wheel_.drop();
  while (has_graves_.load(std::memory_order_seq_cst)) takeGraves().clear();
}

// Any thread may come here at the same time: each takes a list of its own.
void EventLoop::dropPosted() noexcept {
  Listing* listing = posted_.exchange(nullptr, std::memory_order_seq_cst);
  while (listing != nullptr && listing != asleep<Listing>()) {
    const std::unique_ptr<Listing> owned(listing);
    listing = owned->next;
    QueueRunner::dropListed(*owned->queue);
  }
}

bool EventLoop::take(uint64_t word) noexcept {
  return word_.compare_exchange_strong(
      word, (word & ~uint64_t{3}) | static_cast<uint64_t>(LoopState::kTaken),
      std::memory_order_acq_rel);
}

bool EventLoop::hasWorkWaiting() const noexcept {
  if (batch_index_.load(std::memory_order_relaxed) < batch_count_.load(std::memory_order_relaxed) ||
      listed_first_.load(std::memory_order_relaxed) != nullptr ||
      posted_.load(std::memory_order_relaxed) != nullptr || wheel_.nextDue() <= coarseNow()) {
    return true;
  }
  // A look at the events would use up their edges; whether the descriptor itself is readable does not.
  pollfd readable{epoll_, POLLIN, 0};
  return poll(&readable, 1, 0) > 0;
}

}  // namespace vel
