// openat2 where there is it, else openat for each component.
#include "platform/file_tree_walk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#if defined(__linux__) && __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#include <sys/syscall.h>
#endif

namespace vel {
namespace {

#ifdef O_PATH
constexpr int kLookFlags = O_PATH | O_CLOEXEC;
constexpr int kNoFollow = O_NOFOLLOW;
#else
// What comes closest: no access to the content, and links themselves.
constexpr int kLookFlags = O_EVTONLY | O_NONBLOCK | O_CLOEXEC;
constexpr int kNoFollow = O_SYMLINK;
#endif

#ifndef O_LARGEFILE
#define O_LARGEFILE 0
#endif
constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | O_LARGEFILE;

// As many as the kernel follows.
constexpr int kMostLinks = 40;

Opened openedAt(int directory, const char* name, int flags) noexcept {
  int descriptor;
  do {
    descriptor = ::openat(directory, name, flags);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor < 0 ? Opened{FileDescriptor(), errno} : Opened{FileDescriptor(descriptor), 0};
}

Opened failed(int error) { return {FileDescriptor(), error}; }

/// The text of the link that `link` names; empty on failure.
std::string linkText(const FileDescriptor& link) {
  std::array<char, PATH_MAX> text;
#ifdef __APPLE__
  const ssize_t length = ::freadlink(link.get(), text.data(), text.size());
#else
  const ssize_t length = ::readlinkat(link.get(), "", text.data(), text.size());
#endif
  return length < 0 ? std::string() : std::string(text.data(), static_cast<size_t>(length));
}

/// One walk along a path. Of the directories above it keeps what tells them apart: ".." has to lead to
/// the very directory that the walk came from, wherever it has been moved to.
class Walk {
 public:
  Walk(const FileDescriptor& root, const char* path) : root_(root.get()), rest_(path) {}

  Opened run(Access access);

 private:
  struct Place {
    dev_t device;
    ino_t inode;

    friend bool operator==(const Place&, const Place&) = default;
  };
  struct Component {
    std::string name;
    size_t end;
    bool is_last;
    bool has_slash;
  };

  int here() const noexcept { return directory_ ? directory_.get() : root_; }
  Component takeComponent();
  /// These do one step: the error, or 0.
  int follow(const Component& component, const FileDescriptor& link);
  int leave(const Place& above);
  int enter(const Component& component, FileDescriptor file, const struct stat& status);

  const int root_;
  std::string rest_;
  size_t at_ = 0;
  int links_ = 0;
  // Where the walk stands; none at the root.
  FileDescriptor directory_;
  Place place_{};
  std::vector<Place> above_;
};

Walk::Component Walk::takeComponent() {
  const size_t begin = std::min(rest_.find_first_not_of('/', at_), rest_.size());
  const size_t end = std::min(rest_.find('/', begin), rest_.size());
  at_ = std::min(rest_.find_first_not_of('/', end), rest_.size());
  return {rest_.substr(begin, end - begin), end, at_ == rest_.size(), end < rest_.size()};
}

int Walk::follow(const Component& component, const FileDescriptor& link) {
  if (++links_ > kMostLinks) return ELOOP;
  std::string text = linkText(link);
  if (text.empty()) return ENOENT;
  if (text.front() == '/') return EXDEV;
  // A slash behind the link counts: what it leads to has to be a directory then.
  rest_ = text.append(rest_, component.end);
  at_ = 0;
  return 0;
}

int Walk::leave(const Place& above) {
  if (above != above_.back()) return ESTALE;
  above_.pop_back();
  place_ = above;
  return 0;
}

int Walk::enter(const Component& component, FileDescriptor file, const struct stat& status) {
  const Place place{status.st_dev, status.st_ino};
  if (component.name == "..") {
    if (const int error = leave(place); error != 0) return error;
  } else if (component.name != ".") {
    above_.push_back(place_);
    place_ = place;
  }
  directory_ = std::move(file);
  return 0;
}

Opened Walk::run(Access access) {
  struct stat status;
  if (::fstat(root_, &status) != 0) return failed(errno);
  place_ = {status.st_dev, status.st_ino};
  for (;;) {
    Component component = takeComponent();
    if (component.name.empty()) component.name = ".";
    if (component.name == ".." && above_.empty()) return failed(EXDEV);
    Opened next = openedAt(here(), component.name.c_str(), kLookFlags | kNoFollow);
    if (!next.file) return next;
    if (::fstat(next.file.get(), &status) != 0) return failed(errno);
    if (S_ISLNK(status.st_mode)) {
      if (const int error = follow(component, next.file); error != 0) return failed(error);
      continue;
    }
    const bool isDirectory = S_ISDIR(status.st_mode);
    if (component.has_slash && !isDirectory) return failed(ENOTDIR);
    if (component.is_last && !isDirectory && access == Access::kRead) {
      return openedAt(here(), component.name.c_str(), kReadFlags | O_NOFOLLOW);
    }
    if (component.is_last && component.name != "..") return next;
    if (const int error = enter(component, std::move(next.file), status); error != 0) {
      return failed(error);
    }
    if (component.is_last) return {std::move(directory_), 0};
  }
}

#ifdef RESOLVE_BENEATH
Opened openedBelow(int directory, const char* path, int flags) noexcept {
  open_how how{};
  how.flags = static_cast<unsigned>(flags);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  long descriptor;
  do {
    descriptor = ::syscall(SYS_openat2, directory, path, &how, sizeof how);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) return {FileDescriptor(), errno};
  return {FileDescriptor(static_cast<int>(descriptor)), 0};
}
#endif

}  // namespace

bool kernelKeepsBelow() noexcept {
#ifdef RESOLVE_BENEATH
  static const bool doesSo = [] {
    // Old kernels do not know the call; filters of containers refuse what they do not know.
    const int error = openedBelow(AT_FDCWD, ".", kLookFlags).error;
    return error != ENOSYS && error != EPERM && error != EINVAL && error != EOPNOTSUPP;
  }();
  return doesSo;
#else
  return false;
#endif
}

Opened openBelow(const FileDescriptor& root, const char* path, Access access) {
#ifdef RESOLVE_BENEATH
  // After any rename in the system while it followed a "..", the kernel cannot vouch for the way.
  constexpr int kMostTries = 16;
  for (int tries = 0; tries < kMostTries; ++tries) {
    Opened opened =
        openedBelow(root.get(), path, access == Access::kLook ? kLookFlags : kReadFlags);
    if (opened.error != EAGAIN) return opened;
  }
#endif
  return walkBelow(root, path, access);
}

Opened walkBelow(const FileDescriptor& root, const char* path, Access access) {
  return Walk(root, path).run(access);
}

Opened reopen(const FileDescriptor& named) noexcept {
#ifdef __linux__
  char path[32];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", named.get());
  return openedAt(AT_FDCWD, path, kReadFlags);
#else
  static_cast<void>(named);
  return {FileDescriptor(), ENOENT};
#endif
}

Opened openRoot(const char* path) noexcept {
  return openedAt(AT_FDCWD, path, kLookFlags | O_DIRECTORY);
}

bool mayRead(const FileDescriptor& file, const struct stat& status) {
#ifdef SYS_faccessat2
  if (::syscall(SYS_faccessat2, file.get(), "", R_OK, AT_EMPTY_PATH | AT_EACCESS) == 0) return true;
  if (errno != ENOSYS && errno != EPERM) return false;
#endif
  return permitsReading(status);
}

bool permitsReading(const struct stat& status) {
  const uid_t user = ::geteuid();
  if (user == 0) return true;
  if (status.st_uid == user) return (status.st_mode & S_IRUSR) != 0;
  std::vector<gid_t> groups(static_cast<size_t>(std::max(0, ::getgroups(0, nullptr))));
  const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
  groups.resize(static_cast<size_t>(std::max(0, count)));
  groups.push_back(::getegid());
  const bool isMember = std::find(groups.begin(), groups.end(), status.st_gid) != groups.end();
  return (status.st_mode & (isMember ? S_IRGRP : S_IROTH)) != 0;
}

}  // namespace vel
