// The two ways to follow a path below a directory, for FileTree: by the kernel, and step by step.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "platform/file.h"

namespace vel {

enum class Access : uint8_t {
  kLook,  // opens nothing: the descriptor only names what is there
  kRead,  // opens what is there for reading, without waiting
};

struct Opened {
  FileDescriptor file;
  int error = 0;  // the errno when there is no file
};

/// Whether the kernel can keep below a directory by itself, found out once.
bool kernelKeepsBelow() noexcept;

/// Opens what `path` leads to below `root`. EXDEV when it leads out, by an absolute link too.
Opened openBelow(const FileDescriptor& root, const char* path, Access access);

/// The same, component by component, on any system; a directory is only looked at. ESTALE when another
/// process moved one on the way.
Opened walkBelow(const FileDescriptor& root, const char* path, Access access);

/// Opens for reading what `named` names, without a way that others could change. ENOENT without /proc.
Opened reopen(const FileDescriptor& named) noexcept;

/// A descriptor that names the directory at `path`.
Opened openRoot(const char* path) noexcept;

/// Whether this process may read what `file` names; `status` is that of `file`.
bool mayRead(const FileDescriptor& file, const struct stat& status);
/// The same by permission bits alone, which is all that some systems tell about a descriptor.
bool permitsReading(const struct stat& status);

}  // namespace vel
