// The root's descriptor and what is told of a file. file_tree_walk.h follows the paths.
#include "platform/file_tree.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <utility>

#include "platform/file_tree_walk.h"
#include "platform/kept_files.h"
#include "platform/log.h"
#include "platform/recycled.h"

namespace vel {

struct FileTree::Root {
  // While it is open, no other directory can get the same number.
  FileDescriptor directory;
  dev_t device;
  ino_t inode;
};

namespace {

using namespace std::chrono_literals;

constexpr MonotonicTime kExaminationInterval = std::chrono::nanoseconds(100ms).count();
// Looks at a path that another process keeps changing.
constexpr int kMostLooks = 8;

/// Whether the error says that something else stands at a path where a regular file was.
bool tellsOfChange(int error) noexcept {
  return error == ENOENT || error == ENOTDIR || error == ELOOP || error == EXDEV ||
         error == ENXIO || error == ESTALE;
}

bool isShortage(int error) noexcept {
  return error == EMFILE || error == ENFILE || error == ENOMEM;
}

void logShortage(int error) {
  // Clients choose how many files are looked for, so one line a second has to be enough.
  static std::atomic<int64_t> lastLogged{-1};
  const int64_t now = coarseNow() / 1'000'000'000;
  if (lastLogged.exchange(now, std::memory_order_relaxed) == now) return;
  logLine(posixError(error, "look for a file").localizedDescription() + " " +
          posixError(error, "").localizedFailureReason());
}

void describe(const struct stat& status, FoundFile* found) noexcept {
  found->kind = S_ISREG(status.st_mode)   ? FoundFile::Kind::kRegular
                : S_ISDIR(status.st_mode) ? FoundFile::Kind::kDirectory
                                          : FoundFile::Kind::kOther;
  found->mode = status.st_mode & 07777;
  found->size = static_cast<uint64_t>(status.st_size);
}

}  // namespace

FileTree::FileTree(std::string root, Way way)
    : path_(std::move(root)),
      uses_kernel_(way == Way::kBest && kernelKeepsBelow()),
      kept_(std::make_shared<KeptFiles>()) {}

FileTree::~FileTree() = default;

std::optional<FoundFile> FileTree::find(std::string_view path) const {
  std::array<char, PATH_MAX> text;
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  if (path.empty()) path = ".";
  if (path.size() >= text.size() || path.find('\0') != std::string_view::npos) return std::nullopt;
  *std::copy(path.begin(), path.end(), text.begin()) = '\0';

  const std::shared_ptr<const Root> root = currentRoot();
  if (root == nullptr) return std::nullopt;
  std::optional<FoundFile> found = findKept(*root, text.data());
  if (!found) found = findBelow(*root, text.data());
  if (found) return found;
  // Perhaps it is in another directory that has taken the place of the root.
  const std::shared_ptr<const Root> next = examineRoot(root);
  if (next == nullptr || next == root) return std::nullopt;
  return findBelow(*next, text.data());
}

std::shared_ptr<const FileTree::Root> FileTree::currentRoot() const {
  std::shared_ptr<const Root> known;
  {
    const std::lock_guard lock(mutex_);
    const MonotonicTime now = coarseNow();
    if (root_ != nullptr && now - examined_at_ <= kExaminationInterval) return root_;
    // Others need not examine it meanwhile.
    examined_at_ = now;
    known = root_;
  }
  return examineRoot(std::move(known));
}

std::shared_ptr<const FileTree::Root> FileTree::examineRoot(
    std::shared_ptr<const Root> known) const {
  const MonotonicTime now = coarseNow();
  struct stat status;
  const bool isThere = path_.find('\0') == std::string::npos && ::stat(path_.c_str(), &status) == 0;
  if (!isThere) {
    known = nullptr;
  } else if (known == nullptr || known->device != status.st_dev || known->inode != status.st_ino) {
    known = nullptr;
    Opened opened = openRoot(path_.c_str());
    if (isShortage(opened.error)) logShortage(opened.error);
    if (opened.file && ::fstat(opened.file.get(), &status) == 0) {
      known = std::make_shared<Root>(Root{std::move(opened.file), status.st_dev, status.st_ino});
    }
  }
  const std::lock_guard lock(mutex_);
  root_ = known;
  examined_at_ = now;
  return known;
}

// A file that was found a moment ago and has neither gone nor changed. Whether the path leads to it is all
// that is asked of the path here.
std::optional<FoundFile> FileTree::findKept(const Root& root, const char* path) const {
  std::optional<KeptFile> kept = kept_->find(path, &root);
  struct stat status;
  if (!kept || ::fstatat(root.directory.get(), path, &status, 0) != 0 ||
      kept->identity != FileIdentity(status)) {
    return std::nullopt;
  }
  FoundFile found;
  describe(status, &found);
  found.is_readable = true;
  found.file = std::move(kept->file);
  return found;
}

std::optional<FoundFile> FileTree::findBelow(const Root& root, const char* path) const {
  for (int looks = 0; looks < kMostLooks; ++looks) {
    Opened named = open(root, path, Access::kLook);
    if (named.error == ESTALE) continue;
    struct stat status;
    if (!named.file || ::fstat(named.file.get(), &status) != 0) return std::nullopt;
    FoundFile found;
    describe(status, &found);
    if (found.kind == FoundFile::Kind::kRegular) {
      // The path may lead to something else by now, a pipe even: the file itself is opened.
      Opened opened = withRoom([&] { return reopen(named.file); });
      if (opened.error == ENOENT) opened = open(root, path, Access::kRead);  // there is no /proc
      if (isShortage(opened.error)) return std::nullopt;
      struct stat again;
      if (opened.file && ::fstat(opened.file.get(), &again) == 0 && S_ISREG(again.st_mode)) {
        describe(again, &found);
        found.is_readable = true;
        found.file = makeRecycled<const FileDescriptor>(std::move(opened.file));
        kept_->keep(path, &root, {found.file, FileIdentity(again)});
        return found;
      }
      if (opened.file || tellsOfChange(opened.error)) continue;
    } else {
      found.is_readable = uses_kernel_ ? mayRead(named.file, status) : permitsReading(status);
    }
    found.file = makeRecycled<const FileDescriptor>(std::move(named.file));
    return found;
  }
  return std::nullopt;
}

Opened FileTree::open(const Root& root, const char* path, Access access) const {
  return withRoom([&] {
    return uses_kernel_ ? openBelow(root.directory, path, access)
                        : walkBelow(root.directory, path, access);
  });
}

// Files that are kept for later stand back when there is no room for those that are wanted now.
template <class Open>
Opened FileTree::withRoom(const Open& open) const {
  Opened opened = open();
  if (!isShortage(opened.error)) return opened;
  kept_->clear();
  opened = open();
  if (isShortage(opened.error)) logShortage(opened.error);
  return opened;
}

}  // namespace vel
