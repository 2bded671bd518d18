// Files below a root directory, found so that nothing outside the root can be had, however paths, links
// and other processes try. What is done with a file is left to others.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/file.h"

namespace vel {

enum class Access : uint8_t;
class KeptFiles;
struct Opened;

/// What stands at a path below a root. Everything told here was asked of `file`.
struct FoundFile {
  enum class Kind : uint8_t { kRegular, kDirectory, kOther };

  /// Open for reading when it is a readable regular file; else it only names what was found, and
  /// nothing but its status can be had through it. Close-on-exec. Others may read from it as well.
  std::shared_ptr<const FileDescriptor> file;
  Kind kind = Kind::kOther;
  bool is_readable = false;
  /// The permission bits, with those above them (07777).
  mode_t mode = 0;
  uint64_t size = 0;
};

/// Finds files below one directory.
/// Queue:   any; threads share the descriptor of the root.
class FileTree {
 public:
  /// How paths are followed: by the kernel where it can keep below a directory, or component by
  /// component with the same effect.
  enum class Way : uint8_t { kBest, kComponents };

  /// A link at `root` itself is followed. The directory may be missing, come, go and be replaced: that
  /// is noticed at once when nothing is found, else within a tenth of a second.
  explicit FileTree(std::string root, Way way = Way::kBest);
  FileTree(const FileTree&) = delete;
  FileTree& operator=(const FileTree&) = delete;
  ~FileTree();

  /// What stands at `path` relative to the root: "" and "." are the root itself, leading slashes count
  /// for nothing, links and ".." are followed while they stay inside. Pipes, sockets and devices are
  /// told, but never opened. On a queue, what was found stays open for a second or two.
  /// Errors:  none when nothing is there, when the way leads out of the root, by an absolute link too,
  ///          for a NUL, and without descriptors left, which is logged.
  std::optional<FoundFile> find(std::string_view path) const;

 private:
  struct Root;

  std::shared_ptr<const Root> currentRoot() const;
  std::shared_ptr<const Root> examineRoot(std::shared_ptr<const Root> known) const;
  std::optional<FoundFile> findKept(const Root& root, const char* path) const;
  std::optional<FoundFile> findBelow(const Root& root, const char* path) const;
  Opened open(const Root& root, const char* path, Access access) const;
  template <class Open>
  Opened withRoom(const Open& open) const;

  const std::string path_;
  const bool uses_kernel_;
  const std::shared_ptr<KeptFiles> kept_;
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  mutable std::shared_ptr<const Root> root_;
  mutable MonotonicTime examined_at_ = 0;
};

/// Whether names in `directory` are case sensitive; none when that cannot be established.
std::optional<bool> hasCaseSensitiveNames(const std::string& directory);

}  // namespace vel
