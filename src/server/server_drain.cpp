// How a server ends in good order: no new connections, the present requests finished, the rest
// killed at the deadline.
#include <algorithm>
#include <utility>

#include "corvane/server.h"

namespace {

// Longer deadlines are as good as none, and would not fit the clock.
constexpr std::chrono::milliseconds kLongestDeadline = std::chrono::hours(24 * 365);

}  // namespace

struct VELServer::Drain {
  // Holds the server until the completions have been called.
  std::shared_ptr<VELServer> server;
  std::vector<std::function<void()>> completions;
};

void VELServer::drain(std::chrono::milliseconds deadline, std::function<void()> completion) {
  runOnQueue([&] {
    stopOnQueue();
    if (!drain_) {
      drain_ = std::make_shared<Drain>();
      drain_->server = shared_from_this();
      draining_ = true;
    }
    if (completion) drain_->completions.push_back(std::move(completion));
    queue_->after(std::clamp(deadline, std::chrono::milliseconds(0), kLongestDeadline),
                  [weak = std::weak_ptr<Drain>(drain_)] {
                    const auto drain = weak.lock();
                    if (drain) drain->server->stop(false);
                  });
    for (const auto& connection : connections()) connection->closeWhenIdle();
    endDrainIfEmpty();
  });
}

void VELServer::endDrainIfEmpty() {
  if (drain_ && numberOfConnections() == 0) endDrain();
}

void VELServer::endDrain() {
  if (!drain_) return;
  draining_ = false;
  const std::shared_ptr<Drain> ended = std::exchange(drain_, nullptr);
  for (auto& completion : ended->completions) {
    queue_->async([server = ended->server, told = std::move(completion)] { told(); });
  }
}
