#include "corvane/serial_queue.h"

#include <utility>

#include "corvane/error.h"
#include "platform/deadline.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/loop_pool.h"
#include "platform/queue_extras.h"
#include "platform/queue_runner.h"

namespace vel {
namespace {

// Posted work. The queue stays alive until it has run: its loop's list holds it.
struct Work final : QueueNode {
  explicit Work(std::function<void()> posted) : QueueNode(Kind::kWork), work(std::move(posted)) {}
  void runNode(QueueFrame&) override {
    const std::unique_ptr<Work> self(this);
    work();
  }
  void dropNode() noexcept override { delete this; }

  std::function<void()> work;
};

// Work that waits for its time. It owns itself until it has fired.
struct DelayedWork final : Deadline, std::enable_shared_from_this<DelayedWork> {
  ~DelayedWork() override { remove(); }
  void deadlineDidFire() override {
    const std::shared_ptr<DelayedWork> keep = std::move(self);
    const std::shared_ptr<VELSerialQueue> keep_queue = std::move(queue);
    work();
  }
  std::shared_ptr<void> deadlineOwner() override { return weak_from_this().lock(); }
  void deadlineWillNeverFire() noexcept override { self.reset(); }

  std::function<void()> work;
  std::shared_ptr<VELSerialQueue> queue;
  std::shared_ptr<DelayedWork> self;
};

std::mutex g_handler_mutex;
std::function<void(const std::exception_ptr&)>& uncaughtExceptionHandler() {
  static auto* handler = new std::function<void(const std::exception_ptr&)>;
  return *handler;
}

std::string textOf(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& known) {
    return known.what();
  } catch (...) {
    return "unknown exception";
  }
}

}  // namespace

void reportUncaughtException(const std::exception_ptr& exception) {
  logLine("Work of a queue ended with an exception: " + textOf(exception));
  std::function<void(const std::exception_ptr&)> handler;
  {
    std::lock_guard lock(g_handler_mutex);
    handler = uncaughtExceptionHandler();
  }
  if (handler) handler(exception);
}

std::shared_ptr<VELSerialQueue> QueueRunner::makeQueue(const char* static_label, EventLoop& loop) {
  struct Made : VELSerialQueue {
    Made(const char* label, EventLoop* on_loop) : VELSerialQueue(label, on_loop) {}
  };
  return std::make_shared<Made>(static_label, &loop);
}

}  // namespace vel

using vel::QueueRunner;

VELSerialQueue::VELSerialQueue(const char* label, vel::EventLoop* loop)
    : loop_(loop), static_label_(label) {
  loop_->pool().hold();
}

VELSerialQueue::VELSerialQueue(std::string label, std::shared_ptr<VELEventLoops> loops)
    : loop_(&(loops ? *loops : *VELEventLoops::sharedLoops()).pool()->nextLoop()),
      extras_(new vel::QueueExtras) {
  extras_.load()->label = std::move(label);
  loop_->pool().hold();
}

VELSerialQueue::~VELSerialQueue() {
  QueueRunner::dropWork(*this);
  delete extras_.load(std::memory_order_relaxed);
  loop_->pool().letGo();
}

void VELSerialQueue::async(std::function<void()> work) {
  QueueRunner::post(*this, *new vel::Work(std::move(work)));
}

void VELSerialQueue::sync(const std::function<void()>& work) { QueueRunner::sync(*this, work); }

void VELSerialQueue::after(std::chrono::nanoseconds delay, std::function<void()> work) {
  auto delayed = std::make_shared<vel::DelayedWork>();
  delayed->work = std::move(work);
  delayed->queue = shared_from_this();
  delayed->self = delayed;
  delayed->arm(*this, delay);
}

bool VELSerialQueue::isCurrent() const noexcept { return QueueRunner::isHeldByThisThread(*this); }

namespace {

vel::QueueExtras& extrasOf(std::atomic<vel::QueueExtras*>& place) {
  vel::QueueExtras* extras = place.load(std::memory_order_acquire);
  if (extras != nullptr) return *extras;
  auto made = std::make_unique<vel::QueueExtras>();
  if (place.compare_exchange_strong(extras, made.get(), std::memory_order_acq_rel)) {
    return *made.release();
  }
  return *extras;
}

}  // namespace

std::string VELSerialQueue::label() const {
  return static_label_ != nullptr ? static_label_ : extrasOf(extras_).label;
}

void VELSerialQueue::setSpecific(const void* key, void* value) {
  bool is_kept = false;
  if (key != nullptr && value == key) {
    void* present = nullptr;
    is_kept = self_specific_.compare_exchange_strong(present, value) || present == value;
  } else if (void* present = const_cast<void*>(key); present != nullptr) {
    self_specific_.compare_exchange_strong(present, nullptr);
  }
  if (is_kept) value = nullptr;
  if (value == nullptr && extras_.load(std::memory_order_acquire) == nullptr) return;
  vel::QueueExtras& extras = extrasOf(extras_);
  std::lock_guard lock(extras.mutex);
  if (value == nullptr) {
    extras.specifics.erase(key);
  } else {
    extras.specifics[key] = value;
  }
}

void* VELSerialQueue::specific(const void* key) const {
  void* self = self_specific_.load(std::memory_order_acquire);
  if (self != nullptr && self == key) return self;
  vel::QueueExtras* extras = extras_.load(std::memory_order_acquire);
  if (extras == nullptr) return nullptr;
  std::lock_guard lock(extras->mutex);
  const auto found = extras->specifics.find(key);
  return found == extras->specifics.end() ? nullptr : found->second;
}

void* VELSerialQueue::currentSpecific(const void* key) {
  for (vel::QueueFrame* frame = vel::ThreadRecord::current().frame; frame != nullptr;
       frame = frame->outer) {
    if (void* value = frame->queue->specific(key)) return value;
  }
  return nullptr;
}

void VELSerialQueue::setLastResort(std::weak_ptr<vel::LastResort> lastResort) {
  last_resort_ = std::move(lastResort);
}

void VELSerialQueue::setUncaughtExceptionHandler(
    std::function<void(const std::exception_ptr&)> handler) {
  std::lock_guard lock(vel::g_handler_mutex);
  vel::uncaughtExceptionHandler() = std::move(handler);
}
