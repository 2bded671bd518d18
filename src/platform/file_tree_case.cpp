// Case of names, by the kind of file system.
#include <fcntl.h>
#include <unistd.h>

#ifdef __linux__
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#endif

#include "platform/file_tree.h"

namespace vel {

#ifdef __linux__

namespace {

std::optional<bool> caseOfFileSystem(uint32_t type) noexcept {
  switch (type) {
    case 0xEF53:      // ext2, ext3, ext4
    case 0x58465342:  // xfs
    case 0x9123683E:  // btrfs
    case 0x01021994:  // tmpfs
    case 0x858458F6:  // ramfs
    case 0x794C7630:  // overlayfs
    case 0xF2F52010:  // f2fs
    case 0x73717368:  // squashfs
    case 0xE0F5E1E2:  // erofs
    case 0xCA451A4E:  // bcachefs
    case 0x3434:      // nilfs2
    case 0x52654973:  // reiserfs
    case 0x24051905:  // ubifs
      return true;
    case 0x4D44:      // fat
    case 0x2011BAB0:  // exfat
    case 0x5346544E:  // ntfs
    case 0x7366746E:  // ntfs3
    case 0x4244:      // hfs
    case 0x482B:      // hfs+
    case 0x517B:      // smb
    case 0xFE534D42:  // smb2
    case 0xFF534D42:  // cifs
      return false;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<bool> hasCaseSensitiveNames(const std::string& directory) {
  if (directory.find('\0') != std::string::npos) return std::nullopt;
  const FileDescriptor file(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct statfs status;
  if (!file || ::fstatfs(file.get(), &status) != 0) return std::nullopt;
#ifdef FS_CASEFOLD_FL
  // A directory of its own can fold case where the file system does not; many have no flags at all.
  int flags = 0;
  if (::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_CASEFOLD_FL) != 0) {
    return false;
  }
#endif
  return caseOfFileSystem(static_cast<uint32_t>(status.f_type));
}

#else

std::optional<bool> hasCaseSensitiveNames(const std::string& directory) {
  if (directory.find('\0') != std::string::npos) return std::nullopt;
#ifdef _PC_CASE_SENSITIVE
  const long answer = ::pathconf(directory.c_str(), _PC_CASE_SENSITIVE);
  if (answer >= 0) return answer != 0;
#endif
  return std::nullopt;
}

#endif

}  // namespace vel
