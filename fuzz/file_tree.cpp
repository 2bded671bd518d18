// Files below a root, by the kernel and component by component: the same answer, and never a file that
// was not inside when the tree was made.
#include "platform/file_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "support/require.h"
#include "support/silent_log.h"
#include "support/temporary_directory.h"

namespace vel::fuzz {
namespace {

using Identity = std::pair<dev_t, ino_t>;

Identity identityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }
Identity identityOf(const std::string& path) {
  struct stat status;
  require(::stat(path.c_str(), &status) == 0, "the file is there");
  return identityOf(status);
}

/// A directory with the tree, `root`, and with what is outside; it goes away as the process ends.
class Place {
 public:
  Place() {
    const std::array directories = {"root", "root/a", "root/a/b", "root/a/b/c", "root/d", "o"};
    for (const char* name : directories) ::mkdir(directory_.path(name).c_str(), 0755);
    for (const char* name : {"root/f", "root/a/f", "root/a/b/f", "root/d/f", "f", "o/f", "o/s"}) {
      require(writeAll(createExclusive(directory_.path(name)), name), "a file is made");
    }
    require(::mkfifo(directory_.path("root/p").c_str(), 0600) == 0, "a pipe is made");
    constexpr std::pair<const char*, const char*> kLinks[] = {
        {"root/lf", "f"},          {"root/la", "a"},
        {"root/la-slash", "a/"},   {"root/here", "."},
        {"root/up", ".."},         {"root/out", "../o"},
        {"root/out-f", "../o/f"},  {"root/again", "../root"},
        {"root/loop", "loop"},     {"root/absent", "none"},
        {"root/etc", "/etc"},      {"root/a/up", ".."},
        {"root/a/out", "../../o"}, {"root/a/b/far", "../../d/../la/b"},
        {"root/a/b/top", "../.."}, {"root/d/lf-slash", "../f/"},
        {"root/d/lp", "../p"},
    };
    for (const auto& [name, target] : kLinks) {
      require(::symlink(target, directory_.path(name).c_str()) == 0, "a link is made");
    }
    require(::symlink(directory_.path("root").c_str(), directory_.path("root/self").c_str()) == 0,
            "a link is made");
    record(directory_.path("root"));
    kernel_.emplace(directory_.path("root"));
    components_.emplace(directory_.path("root"), FileTree::Way::kComponents);
    require(kernel_->find("") && components_->find(""), "the root is there, and open from here on");
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  /// Both ways, in this order or the other one.
  void check(std::string_view path, bool componentsFirst) const {
    const int next = nextDescriptor();
    const Answer first = answer(componentsFirst ? *components_ : *kernel_, path);
    const Answer second = answer(componentsFirst ? *kernel_ : *components_, path);
    require(first == second, "both ways give the same");
    require(!first || inside_.contains(std::get<Identity>(*first)), "only what is inside is found");
    require(nextDescriptor() == next, "no descriptor stays open");
  }

 private:
  using Answer =
      std::optional<std::tuple<Identity, FoundFile::Kind, bool, mode_t, uint64_t, std::string>>;

  /// Notes what is in the tree; none of it is a link to a file outside.
  void record(const std::string& root) {
    inside_.insert(identityOf(root));
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      if (!entry.is_symlink()) inside_.insert(identityOf(entry.path().string()));
    }
    require(inside_.size() == 10, "the tree has as many files as were made");
  }

  static int nextDescriptor() {
    const FileDescriptor next(::open("/", O_RDONLY | O_CLOEXEC));
    return next.get();
  }

  static Answer answer(const FileTree& tree, std::string_view path) {
    const std::optional<FoundFile> found = tree.find(path);
    if (!found) return std::nullopt;
    struct stat status;
    require(::fstat(found->file->get(), &status) == 0, "what is found has a descriptor");
    std::string content;
    if (found->kind == FoundFile::Kind::kRegular) {
      content.resize(found->size);
      require(readAt(*found->file, content.data(), content.size(), 0) ==
                  static_cast<ptrdiff_t>(content.size()),
              "a regular file is open for reading");
    }
    return std::tuple(identityOf(status), found->kind, found->is_readable, found->mode, found->size,
                      content);
  }

  const test::TemporaryDirectory directory_;
  std::set<Identity> inside_;
  std::optional<FileTree> kernel_;
  std::optional<FileTree> components_;
};

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const vel::fuzz::Place place;
  vel::fuzz::silenceLog();
  if (size == 0) return 0;
  // The first byte says which way goes first.
  place.check({reinterpret_cast<const char*>(data) + 1, size - 1}, (data[0] & 1) != 0);
  return 0;
}
