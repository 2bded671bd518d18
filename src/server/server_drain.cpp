// How a server ends in good order: no new connections, the present requests finished, the rest
// closed at the deadline.
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
                    if (drain) drain->server->closeConnectionsAtOnce();
                  });
    for (const auto& connection : connections()) connection->closeWhenIdle();
    endDrainIfEmpty();
  });
}

void VELServer::endDrainIfEmpty() {
  if (drain_ && areAllConnectionsClosed()) endDrain();
}

bool VELServer::areAllConnectionsClosed() const {
  const std::lock_guard lock(connections_mutex_);
  return connections_.empty() && closing_.empty();
}

/// Those that were killed, too: they may be waiting for a client that takes nothing.
void VELServer::closeConnectionsAtOnce() {
  const std::lock_guard lock(connections_mutex_);
  closing_.merge(connections_);
  connections_.clear();
  for (const auto& connection : closing_) connection->closeAtOnce();
}

void VELServer::endDrain() {
  if (!drain_) return;
  draining_ = false;
  const std::shared_ptr<Drain> ended = std::exchange(drain_, nullptr);
  for (auto& completion : ended->completions) {
    queue_->async([server = ended->server, told = std::move(completion)] { told(); });
  }
}
