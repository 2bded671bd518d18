// KeptFiles: files that stay open for a moment, because what was asked for once is asked for again.
#pragma once

#include <sys/stat.h>
#include <time.h>

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/file.h"

class VELSerialQueue;

namespace vel {

/// Tells one file from another, and from itself after a change of its content or permissions.
struct FileIdentity {
  explicit FileIdentity(const struct stat& status) noexcept
      : device(status.st_dev), inode(status.st_ino), changed(status.st_ctim) {}
  friend bool operator==(const FileIdentity& a, const FileIdentity& b) noexcept {
    return a.device == b.device && a.inode == b.inode && a.changed.tv_sec == b.changed.tv_sec &&
           a.changed.tv_nsec == b.changed.tv_nsec;
  }

  dev_t device;
  ino_t inode;
  timespec changed;
};

struct KeptFile {
  std::shared_ptr<const FileDescriptor> file;
  FileIdentity identity;
};

/// A few open files by their paths. Who uses one looks first whether the path still leads to it.
/// Owner:   one file tree. What nobody asks for any more is closed within two seconds.
/// Queue:   any; the lock is a leaf.
class KeptFiles : public std::enable_shared_from_this<KeptFiles> {
 public:
  /// The file that was kept for `path` below `root` not long ago.
  std::optional<KeptFile> find(std::string_view path, const void* root);
  /// Keeps `file` for a moment, in place of another one perhaps. Does nothing on threads that run no queue,
  /// for nobody would come to close it.
  void keep(std::string_view path, const void* root, KeptFile file);
  /// Lets go of all of them.
  void clear();

 private:
  struct Place {
    std::string path;
    const void* root = nullptr;
    std::optional<KeptFile> kept;
    MonotonicTime kept_at = 0;
    bool is_used = false;  // since the last sweep
  };
  static constexpr size_t kPlaces = 64;

  Place& placeOf(std::string_view path) noexcept;
  class Sweep;

  void sweepLater(VELSerialQueue& queue);
  void sweep();

  std::mutex mutex_;
  // Guarded by mutex_.
  std::array<Place, kPlaces> places_;
  bool will_sweep_ = false;
};

}  // namespace vel
