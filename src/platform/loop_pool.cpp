#include "platform/loop_pool.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "corvane/error.h"
#include "corvane/event_loops.h"
#include "platform/event_loop.h"
#include "platform/file.h"
#include "platform/log.h"
#include "platform/queue_runner.h"

namespace vel {
namespace {

// Spare threads that wait for a loop; more than these end.
constexpr size_t kWarmSpares = 2;

}  // namespace

void blockAllSignals() noexcept {
  sigset_t all;
  sigfillset(&all);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
    sigdelset(&all, fault);
  }
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

PoolThread::PoolThread(LoopPool& pool) : pool_(pool) {
  thread_ = std::thread([this] { run(); });
  pthread_getcpuclockid(thread_.native_handle(), &cpu_clock_);
}

PoolThread::~PoolThread() {
  if (thread_.joinable()) thread_.join();
}

void PoolThread::assign(EventLoop* loop) {
  std::lock_guard lock(mutex_);
  is_assigned_ = true;
  loop_ = loop;
  condition_.notify_one();
}

int64_t PoolThread::cpuTime() const noexcept {
  timespec time{};
  if (clock_gettime(cpu_clock_, &time) != 0) return 0;
  return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

bool PoolThread::isAsleep() const noexcept {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", id_.load());
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path, "re"), &std::fclose);
  char line[256];
  if (!file || std::fgets(line, sizeof line, file.get()) == nullptr) return false;
  // The state follows the name, which stands in parentheses and may hold any of them itself.
  const char* name_end = std::strrchr(line, ')');
  return name_end != nullptr && (name_end[2] == 'S' || name_end[2] == 'D');
}

void PoolThread::run() {
  blockAllSignals();
  id_.store(gettid());
  ThreadRecord& record = ThreadRecord::current();
  record.blocks_signals = true;
  do {
    EventLoop* loop = nullptr;
    {
      std::unique_lock lock(mutex_);
      condition_.wait(lock, [this] { return is_assigned_; });
      is_assigned_ = false;
      loop = loop_;
    }
    if (loop == nullptr) return;
    loop->setDriver(this);
    loop->drive(record);
  } while (pool_.keepSpare(*this));
}

LoopPool::LoopPool(const LoopPoolOptions& options) : options_(options), watcher_(*this) {
  for (size_t i = 0; i < std::max<size_t>(options.loops, 1); ++i) {
    loops_.push_back(std::make_unique<EventLoop>(*this));
  }
}

LoopPool::~LoopPool() { stop(); }

void LoopPool::start() {
  std::lock_guard lock(mutex_);
  if (!options_.has_threads) {
    self_ = shared_from_this();
    return;
  }
  // A thread that cannot be started must not leave others behind that wait for a loop.
  std::list<std::unique_ptr<PoolThread>> made;
  try {
    for (size_t i = 0; i < loops_.size(); ++i) made.push_back(std::make_unique<PoolThread>(*this));
    if (options_.watches) watcher_.start();
  } catch (...) {
    for (const auto& thread : made) thread->assign(nullptr);
    throw;
  }
  self_ = shared_from_this();
  threads_ = std::move(made);
  auto thread = threads_.begin();
  for (const auto& loop : loops_) (*thread++)->assign(loop.get());
}

bool LoopPool::isPoolThread() const {
  std::lock_guard lock(mutex_);
  return std::any_of(threads_.begin(), threads_.end(),
                     [](const auto& thread) { return thread->isThisThread(); });
}

void LoopPool::stop() {
  if (isPoolThread()) {
    throw VELException(VELInvalidArgumentException,
                       "Event loops cannot be stopped on one of their own threads.");
  }
  {
    std::lock_guard lock(mutex_);
    if (stopped_) return;
    stopped_ = true;
    for (PoolThread* spare : spares_) spare->assign(nullptr);
    spares_.clear();
  }
  watcher_.stop();
  for (const auto& loop : loops_) loop->requestStop();
  std::list<std::unique_ptr<PoolThread>> threads;
  {
    std::lock_guard lock(mutex_);
    threads.swap(threads_);
  }
  threads.clear();
  for (const auto& loop : loops_) loop->dropWork();
}

bool LoopPool::keepSpare(PoolThread& thread) {
  std::lock_guard lock(mutex_);
  if (stopped_) return false;
  if (spares_.size() >= kWarmSpares) {
    ended_.push_back(&thread);
    return false;
  }
  spares_.push_back(&thread);
  return true;
}

PoolThread* LoopPool::reserveSpare() {
  std::lock_guard lock(mutex_);
  if (stopped_) return nullptr;
  for (PoolThread* ended : ended_) {
    threads_.remove_if([ended](const auto& thread) { return thread.get() == ended; });
  }
  ended_.clear();
  if (!spares_.empty()) {
    PoolThread* spare = spares_.back();
    spares_.pop_back();
    return spare;
  }
  if (threads_.size() >= options_.most_threads + loops_.size()) {
    if (!cap_was_logged_) {
      logLine("Too many handlers block at once: no more than " +
              std::to_string(options_.most_threads) +
              " spare threads are started, so other connections have to wait.");
    }
    cap_was_logged_ = true;
    return nullptr;
  }
  try {
    threads_.push_back(std::make_unique<PoolThread>(*this));
  } catch (const std::exception& exception) {
    logLine(std::string("A spare thread could not be started: ") + exception.what());
    return nullptr;
  }
  return threads_.back().get();
}

bool LoopPool::handOver(EventLoop& loop, uint64_t word) {
  PoolThread* spare = reserveSpare();
  if (spare == nullptr) return false;
  if (loop.take(word)) {
    spare->assign(&loop);
    return true;
  }
  std::lock_guard lock(mutex_);
  if (stopped_) {
    spare->assign(nullptr);
  } else {
    spares_.push_back(spare);
  }
  return false;
}

void LoopPool::letGo() noexcept {
  if (holders_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  std::shared_ptr<LoopPool> pool = std::move(self_);
  // The last queue may end on a thread that would have to join itself.
  if (isPoolThread()) {
    std::thread([pool = std::move(pool)] { pool->stop(); }).detach();
  } else {
    stop();
  }
}

}  // namespace vel

VELEventLoops::VELEventLoops(size_t count) {
  vel::LoopPoolOptions options;
  options.loops = count != 0 ? count : std::max(1U, std::thread::hardware_concurrency());
  pool_ = std::make_shared<vel::LoopPool>(options);
  pool_->start();
}

VELEventLoops::VELEventLoops(std::shared_ptr<vel::LoopPool> pool) : pool_(std::move(pool)) {
  pool_->start();
}

VELEventLoops::~VELEventLoops() { pool_->letGo(); }

const std::shared_ptr<VELEventLoops>& VELEventLoops::sharedLoops() {
  static const auto* shared = new std::shared_ptr<VELEventLoops>(std::make_shared<VELEventLoops>());
  return *shared;
}

size_t VELEventLoops::count() const { return pool_->loops().size(); }

void VELEventLoops::stop() { pool_->stop(); }
