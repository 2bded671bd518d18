#include "platform/kept_files.h"

#include <chrono>
#include <functional>
#include <utility>

#include "corvane/serial_queue.h"
#include "platform/queue_runner.h"

namespace vel {
namespace {

using namespace std::chrono_literals;

// How long a look-up counts: a directory on the way may have become a link that leads elsewhere.
constexpr MonotonicTime kValidFor = std::chrono::nanoseconds(100ms).count();
constexpr auto kSweepInterval = 1s;

}  // namespace

KeptFiles::Place& KeptFiles::placeOf(std::string_view path) noexcept {
  return places_[std::hash<std::string_view>()(path) % kPlaces];
}

std::optional<KeptFile> KeptFiles::find(std::string_view path, const void* root) {
  const MonotonicTime now = coarseNow();
  const std::lock_guard lock(mutex_);
  Place& place = placeOf(path);
  if (place.root != root || place.path != path || now - place.kept_at > kValidFor) {
    return std::nullopt;
  }
  place.is_used = true;
  return place.kept;
}

void KeptFiles::keep(std::string_view path, const void* root, KeptFile file) {
  QueueFrame* frame = ThreadRecord::current().frame;
  if (frame == nullptr) return;
  std::optional<KeptFile> kept(std::move(file));
  bool begins = false;
  {
    const std::lock_guard lock(mutex_);
    Place& place = placeOf(path);
    place.path = path;
    place.root = root;
    place.kept_at = coarseNow();
    place.is_used = true;
    // What was there before is closed after the lock.
    place.kept.swap(kept);
    begins = !std::exchange(will_sweep_, true);
  }
  if (begins) sweepLater(*frame->queue);
}

// A sweep that is due. One that never comes, because the loops have stopped, closes all.
class KeptFiles::Sweep {
 public:
  explicit Sweep(std::weak_ptr<KeptFiles> files) : files_(std::move(files)) {}
  Sweep(const Sweep&) = delete;
  Sweep& operator=(const Sweep&) = delete;
  ~Sweep() {
    const std::shared_ptr<KeptFiles> files = files_.lock();
    if (!files) return;
    files->clear();
    const std::lock_guard lock(files->mutex_);
    files->will_sweep_ = false;
  }
  void run() {
    if (const std::shared_ptr<KeptFiles> files = files_.lock()) files->sweep();
    files_.reset();
  }

 private:
  std::weak_ptr<KeptFiles> files_;
};

void KeptFiles::sweepLater(VELSerialQueue& queue) {
  queue.after(kSweepInterval,
              [sweep = std::make_shared<Sweep>(weak_from_this())] { sweep->run(); });
}

void KeptFiles::clear() {
  // Closed after the lock.
  std::array<Place, kPlaces> places;
  const std::lock_guard lock(mutex_);
  places_.swap(places);
}

void KeptFiles::sweep() {
  std::array<Place, kPlaces> unused;
  bool is_empty = true;
  {
    const std::lock_guard lock(mutex_);
    for (size_t i = 0; i < kPlaces; ++i) {
      Place& place = places_[i];
      if (!place.kept) continue;
      if (std::exchange(place.is_used, false)) {
        is_empty = false;
      } else {
        std::swap(place, unused[i]);
      }
    }
    will_sweep_ = !is_empty;
  }
  if (!is_empty) sweepLater(*ThreadRecord::current().frame->queue);
}

}  // namespace vel
