// The loop over epoll and its counters.
#include "load_loop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

namespace bench {
namespace {

constexpr int kEventsPerWait = 512;
// Long, since a body of a gibibyte may have to reach the disk first.
constexpr int kStallMilliseconds = 60'000;
// Sources 127.0.0.2 and up: the ports of one address would be used up by connections in TIME_WAIT.
constexpr std::uint32_t kFirstSource = 2;
constexpr std::uint32_t kSourceAddresses = 64;
constexpr std::uint64_t kErrorsToGiveUp = 1000;

void control(int epoll, int operation, int descriptor, std::size_t index, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = index;
  if (epoll_ctl(epoll, operation, descriptor, &event) != 0) failSystem("epoll_ctl");
}

}  // namespace

LoadLoop::LoadLoop(const LoadOptions& options)
    : options_(options),
      context_(options.tls ? makeClientContext() : nullptr),
      epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_ < 0) failSystem("epoll_create1");
}

void LoadLoop::run(std::uint64_t requests, std::size_t first, std::size_t count) {
  toSend_ = requests;
  toFinish_ = requests;
  for (std::size_t i = first; i < first + count; ++i) begin(i);
  std::array<epoll_event, kEventsPerWait> events{};
  while (toFinish_ > 0) {
    const int ready = epoll_wait(epoll_, events.data(), kEventsPerWait, kStallMilliseconds);
    if (ready < 0 && errno != EINTR) failSystem("epoll_wait");
    if (ready == 0) fail(std::to_string(toFinish_) + " requests were not answered");
    for (int i = 0; i < ready; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      handle(static_cast<std::size_t>(event.data.u64), event.events);
    }
  }
}

void LoadLoop::openAll() {
  constexpr std::size_t kGroup = 100;
  for (std::size_t first = 0; first < options_.connections; first += kGroup) {
    const std::size_t count = std::min(kGroup, options_.connections - first);
    run(count, first, count);
  }
}

void LoadLoop::open(LoadStream& stream, std::size_t index, std::size_t answer) {
  stream.open(options_.port, kFirstSource + nextSource_++ % kSourceAddresses, context_, answer);
  control(epoll_, EPOLL_CTL_ADD, stream.descriptor(), index, EPOLLIN | EPOLLOUT);
}

void LoadLoop::watch(const LoadStream& stream, std::size_t index, std::uint32_t events) const {
  control(epoll_, EPOLL_CTL_MOD, stream.descriptor(), index, events);
}

std::size_t LoadLoop::take(std::size_t most) {
  const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(most, toSend_));
  toSend_ -= taken;
  return taken;
}

void LoadLoop::countError(std::uint64_t lost) {
  errors_ += lost;
  if (errors_ > kErrorsToGiveUp) fail("more than 1000 requests failed");
}

}  // namespace bench
