// File operations over POSIX calls, interrupted ones tried again.
#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <system_error>

namespace vel {
namespace {

constexpr std::string_view kTemporaryItemsName = "org.corvane";

/// Calls `call` until no signal interrupts it.
template <typename Call>
auto retried(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

bool fail(int code, std::string_view what, VELError* error) {
  if (error != nullptr) *error = posixError(code, what);
  return false;
}

bool hasNul(const std::string& path) { return path.find('\0') != std::string::npos; }

FileDescriptor opened(const std::string& path, int flags, mode_t mode, std::string_view what,
                      VELError* error) {
  if (hasNul(path)) {
    fail(ENOENT, what, error);
    return {};
  }
  const int descriptor =
      retried([&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, mode); });
  if (descriptor < 0) fail(errno, what, error);
  return FileDescriptor(descriptor);
}

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

/// True when `directory` is this user's and no other can write in it; takes write access of others
/// away.
bool isPrivate(const FileDescriptor& directory, mode_t mode, VELError* error) {
  struct stat status;
  if (::fstat(directory.get(), &status) != 0) return fail(errno, "examine the directory", error);
  if (status.st_uid != ::geteuid()) {
    return fail(EPERM, "use a directory of another user", error);
  }
  const bool othersWrite = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (othersWrite && ::fchmod(directory.get(), mode) != 0) {
    return fail(errno, "protect the directory", error);
  }
  return true;
}

const char* environmentValue(const char* name) {
#ifdef __GLIBC__
  return ::secure_getenv(name);
#else
  return std::getenv(name);
#endif
}

std::optional<uint64_t> regularSize(const struct stat& status) noexcept {
  if (!S_ISREG(status.st_mode)) return std::nullopt;
  return static_cast<uint64_t>(status.st_size);
}

}  // namespace

void FileDescriptor::reset(int descriptor) noexcept {
  // Not tried again when interrupted: the descriptor is gone either way.
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = descriptor;
}

VELError posixError(int code, std::string_view what) {
  VELError error(VELPOSIXErrorDomain, code, "Could not " + std::string(what) + ".");
  error.setLocalizedFailureReason(std::generic_category().message(code));
  return error;
}

FileDescriptor openForReading(const std::string& path, VELError* error) {
  return opened(path, O_RDONLY | O_NONBLOCK, 0, "open the file for reading", error);
}

std::optional<uint64_t> fileSize(const FileDescriptor& file) noexcept {
  struct stat status;
  if (::fstat(file.get(), &status) != 0) return std::nullopt;
  return regularSize(status);
}

std::optional<uint64_t> fileSize(const std::string& path) noexcept {
  struct stat status;
  if (hasNul(path) || ::stat(path.c_str(), &status) != 0) return std::nullopt;
  return regularSize(status);
}

FileDescriptor createExclusive(const std::string& path, mode_t mode, VELError* error) {
  // What cannot be unlinked makes the exclusive creation fail, which tells why.
  if (!hasNul(path)) ::unlink(path.c_str());
  return opened(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, mode, "create the file", error);
}

bool makeDirectories(const std::string& path, mode_t mode, VELError* error) {
  constexpr std::string_view what = "create the directory";
  if (path.empty() || hasNul(path)) return fail(ENOENT, what, error);
  // Without the slash at its end, so that a symbolic link there is not followed.
  const std::string target = withoutTrailingSlashes(path);
  int failure = 0;
  for (size_t end = target.find('/', 1);; end = target.find('/', end + 1)) {
    const std::string prefix = target.substr(0, end);
    failure = ::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST ? errno : 0;
    if (end == std::string::npos) break;
  }
  const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
  const FileDescriptor directory = opened(target, flags, 0, what, error);
  if (directory) return isPrivate(directory, mode, error);
  return failure == 0 ? false : fail(failure, what, error);
}

bool makeTemporaryItemsDirectory(std::string* path, VELError* error) {
  const char* configured = environmentValue("TMPDIR");
  const bool usable = configured != nullptr && configured[0] == '/';
  *path = withoutTrailingSlashes(usable ? configured : "/tmp");
  if (path->back() != '/') path->push_back('/');
  path->append(kTemporaryItemsName);
  return makeDirectories(*path, 0700, error);
}

bool writeAll(const FileDescriptor& file, std::string_view bytes, VELError* error) {
  while (!bytes.empty()) {
    const ssize_t count = retried([&] { return ::write(file.get(), bytes.data(), bytes.size()); });
    if (count <= 0) return fail(count < 0 ? errno : EIO, "write the file", error);
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

ptrdiff_t readAt(const FileDescriptor& file, void* out, size_t size, uint64_t offset,
                 VELError* error) {
  auto* bytes = static_cast<char*>(out);
  size_t done = 0;
  while (done < size) {
    if (offset > static_cast<uint64_t>(INT64_MAX) - done) break;
    const auto position = static_cast<off_t>(offset + done);
    const ssize_t count =
        retried([&] { return ::pread(file.get(), bytes + done, size - done, position); });
    if (count < 0) {
      fail(errno, "read the file", error);
      return -1;
    }
    if (count == 0) break;
    done += static_cast<size_t>(count);
  }
  return static_cast<ptrdiff_t>(done);
}

std::optional<std::string> readWholeFile(const std::string& path, VELError* error) {
  const FileDescriptor file = openForReading(path, error);
  if (!file) return std::nullopt;
  // The size is only a first guess: the file may grow, and some have none.
  constexpr size_t kLeast = 4096;
  std::string content(static_cast<size_t>(fileSize(file).value_or(0)) + kLeast, '\0');
  size_t done = 0;
  for (;;) {
    const ptrdiff_t count = readAt(file, content.data() + done, content.size() - done, done, error);
    if (count < 0) return std::nullopt;
    done += static_cast<size_t>(count);
    if (done < content.size()) break;
    content.resize(content.size() * 2);
  }
  content.resize(done);
  return content;
}

bool synchronize(const FileDescriptor& file, VELError* error) {
#ifdef __APPLE__
  const int result = retried([&] { return ::fsync(file.get()); });
#else
  const int result = retried([&] { return ::fdatasync(file.get()); });
#endif
  return result == 0 || fail(errno, "write the file to the disk", error);
}

bool removeFile(const std::string& path, VELError* error) {
  if (hasNul(path) || ::unlink(path.c_str()) == 0 || errno == ENOENT) return true;
  return fail(errno, "remove the file", error);
}

}  // namespace vel
