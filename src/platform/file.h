// Files: descriptors that close themselves, and the few operations that bodies need. Every descriptor
// is close-on-exec; errors carry the errno.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "corvane/error.h"

namespace vel {

/// Owns a descriptor, or none.
class FileDescriptor {
 public:
  FileDescriptor() noexcept = default;
  explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const noexcept { return descriptor_; }
  explicit operator bool() const noexcept { return descriptor_ >= 0; }
  int release() noexcept { return std::exchange(descriptor_, -1); }
  void reset(int descriptor = -1) noexcept;

 private:
  int descriptor_ = -1;
};

/// The error of `VELPOSIXErrorDomain` for `code`; `what` says what could not be done.
VELError posixError(int code, std::string_view what);

/// Opens `path` for reading; never waits for a peer, as a named pipe would. A path with a NUL in it
/// does not exist.
FileDescriptor openForReading(const std::string& path, VELError* error = nullptr);

/// The size of a regular file; none for anything else.
std::optional<uint64_t> fileSize(const FileDescriptor& file) noexcept;
std::optional<uint64_t> fileSize(const std::string& path) noexcept;

/// Creates `path` for writing and reading. Whatever stood there is unlinked first, and nothing is
/// followed: the file is a new one of this process or there is none.
FileDescriptor createExclusive(const std::string& path, mode_t mode = 0600,
                               VELError* error = nullptr);

/// Makes the directory `path`, with those that lead to it, each with `mode`. False when there is
/// something else, a symbolic link too, or when the directory belongs to another user; write access of
/// others is taken away from one that is there already.
bool makeDirectories(const std::string& path, mode_t mode = 0700, VELError* error = nullptr);

/// Makes the library's directory for temporary files and gives its path. False, with `error` set, when
/// it cannot be trusted; `path` is set all the same.
bool makeTemporaryItemsDirectory(std::string* path, VELError* error = nullptr);

/// Writes all of `bytes`.
bool writeAll(const FileDescriptor& file, std::string_view bytes, VELError* error = nullptr);

/// Reads up to `size` bytes at `offset`, fewer only at the end of the file. -1 on failure.
ptrdiff_t readAt(const FileDescriptor& file, void* out, size_t size, uint64_t offset,
                 VELError* error = nullptr);

/// The whole file at `path`.
std::optional<std::string> readWholeFile(const std::string& path, VELError* error = nullptr);

/// Has the bytes of `file` written to the disk.
bool synchronize(const FileDescriptor& file, VELError* error = nullptr);

/// Removes the file at `path`; true when it is gone, also when it never was there.
bool removeFile(const std::string& path, VELError* error = nullptr);

}  // namespace vel
