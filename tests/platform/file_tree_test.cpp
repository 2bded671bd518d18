// Tests of files below a root: what leads out of it, what stays inside, and who is in between meanwhile.
#include "platform/file_tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "support/log_capture.h"
#include "support/stopped_clock.h"
#include "support/temporary_directory.h"

namespace vel {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Kind = FoundFile::Kind;
using Way = FileTree::Way;
namespace fs = std::filesystem;

ptrdiff_t openDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

/// The file in a text that can be compared: "none", or its inode.
std::string identity(const struct stat& status) {
  return std::to_string(status.st_dev) + "/" + std::to_string(status.st_ino);
}
std::string identity(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 ? identity(status) : "no " + path;
}
std::string identity(const std::optional<FoundFile>& found) {
  struct stat status;
  return found && ::fstat(found->file.get(), &status) == 0 ? identity(status) : "none";
}

/// A root with files, directories and links, and a directory outside. Each test runs both ways.
class FileTreeTest : public testing::TestWithParam<Way> {
 protected:
  FileTreeTest() {
    fs::permissions(directory_.path(), fs::perms(0755));
    fs::create_directories(inside("dir/nested"));
    fs::create_directory(outside(""));
    for (const char* name : {"file", "dir/file", "dir/nested/file"}) write(inside(name), name);
    for (const char* name : {"file", "secret"}) write(outside(name), "outside");
    tree_ = std::make_unique<FileTree>(inside(""), GetParam());
  }
  ~FileTreeTest() override {
    // Fewer are fine: other tests' sockets may be closing.
    EXPECT_LE(openDescriptors(), before_ + 1) << "the root's alone is kept";
  }

  std::string inside(std::string_view name) const {
    return directory_.path("root/") + std::string(name);
  }
  std::string outside(std::string_view name) const {
    return directory_.path("outside/") + std::string(name);
  }
  static void write(const std::string& path, std::string_view content) {
    ASSERT_TRUE(writeAll(createExclusive(path, 0644), content)) << path;
  }
  void link(const std::string& name, const std::string& target) const {
    ASSERT_EQ(::symlink(target.c_str(), inside(name).c_str()), 0) << name;
  }
  std::string found(std::string_view path) const { return identity(tree_->find(path)); }
  /// Calls `work` as a user who is nobody, if this one may become that. Only this thread does.
  static void asNobody(const std::function<void()>& work) {
    std::jthread([&work] {
      if (::geteuid() == 0) {
        // Not by the library's functions, which would change every thread.
        ASSERT_EQ(::syscall(SYS_setgroups, 0, nullptr), 0);
        ASSERT_EQ(::syscall(SYS_setresgid, -1, 65534, -1), 0);
        ASSERT_EQ(::syscall(SYS_setresuid, -1, 65534, -1), 0);
      }
      work();
    }).join();
  }

 private:
  const ptrdiff_t before_ = openDescriptors();

 protected:
  const test::TemporaryDirectory directory_;
  std::unique_ptr<FileTree> tree_;
};

INSTANTIATE_TEST_SUITE_P(, FileTreeTest, testing::Values(Way::kBest, Way::kComponents),
                         [](const auto& instance) {
                           return instance.param == Way::kBest ? "ByKernel" : "ByComponents";
                         });

TEST_P(FileTreeTest, FollowsOnlyWhatStaysInside) {
  const std::vector<std::pair<std::string, std::string>> links = {
      {"to-file", "file"},
      {"to-dir", "dir"},
      {"to-dir-slash", "dir//"},
      {"to-file-slash", "file/"},
      {"here", "."},
      {"round", "dir/../to-dir/nested/.."},
      {"dir/up", "../file"},
      {"dir/nested/up", "../../dir/nested/file"},
      {"dangling", "nothing"},
      {"loop", "loop"},
      {"out", "../outside"},
      {"out-file", "../outside/secret"},
      {"out-and-in", "../root/file"},
      {"dir/out", "../../outside/secret"},
      {"absolute", inside("file")},
      {"absolute-root", inside("")},
      {"absolute-out", outside("secret")},
      {"slash", "/"},
  };
  for (const auto& [name, target] : links) link(name, target);

  struct Row {
    std::string path;
    const char* file;  // which file of the root is found; null: none
  };
  const std::vector<Row> rows = {
      {"", "."},
      {".", "."},
      {"file", "file"},
      {"dir/nested/file", "dir/nested/file"},
      {"dir/", "dir"},
      {"dir//nested///", "dir/nested"},
      {"dir/.", "dir"},
      {"dir/..", "."},
      {"dir/nested/../file", "dir/file"},
      {"dir/nested/../../file", "file"},
      {"to-file", "file"},
      {"to-dir", "dir"},
      {"to-dir/", "dir"},
      {"to-dir/file", "dir/file"},
      {"to-dir/../file", "file"},
      {"to-dir-slash/file", "dir/file"},
      {"here/here/here/file", "file"},
      {"round/file", "dir/file"},
      {"dir/up", "file"},
      {"dir/nested/up", "dir/nested/file"},
      {"file/", nullptr},
      {"file/.", nullptr},
      {"file/..", nullptr},
      {"file/file", nullptr},
      {"to-file/", nullptr},
      {"to-file-slash", nullptr},
      {"nothing", nullptr},
      {"nothing/../file", nullptr},
      {"dangling", nullptr},
      {"loop", nullptr},
      {"loop/..", nullptr},
      {"..", nullptr},
      {"../", nullptr},
      {"../root/file", nullptr},
      {"../outside/secret", nullptr},
      {"dir/../../root", nullptr},
      {"to-dir/nested/../../../root/file", nullptr},
      {"here/..", nullptr},
      {"out", nullptr},
      {"out/", nullptr},
      {"out/secret", nullptr},
      {"out/../root/file", nullptr},
      {"out-file", nullptr},
      {"out-and-in", nullptr},
      {"dir/out", nullptr},
      {"absolute", nullptr},
      {"absolute-root/file", nullptr},
      {"absolute-out", nullptr},
      {"slash/etc", nullptr},
      {"file\0"s, nullptr},
      {"\0"s, nullptr},
      {"dir\0/../file"s, nullptr},
  };
  for (const Row& row : rows) {
    const std::string expected = row.file != nullptr ? identity(inside(row.file)) : "none";
    for (const char* prefix : {"", "/", "///", "./", "dir/../", "dir/nested/../../", "here/"}) {
      EXPECT_EQ(found(prefix + row.path), expected) << prefix << row.path;
    }
  }
}

TEST_P(FileTreeTest, FollowsAsManyLinksAsTheSystem) {
  link("link1", "file");
  for (int i = 2; i <= 41; ++i) link("link" + std::to_string(i), "link" + std::to_string(i - 1));
  link("here", ".");
  EXPECT_EQ(found("link40"), identity(inside("file")));
  EXPECT_EQ(found("link41"), "none");
  EXPECT_EQ(found("here/link39"), identity(inside("file")));
  EXPECT_EQ(found("here/link40"), "none");
}

TEST_P(FileTreeTest, TakesEveryNameThatTheSystemTakes) {
  std::vector<std::string> names;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '.') names.emplace_back(1, static_cast<char>(byte));
  }
  for (const char* name : {"...", "..a", "a..", " . ", "%2e%2e", "\\..\\", "C:"}) {
    names.emplace_back(name);
  }
  names.emplace_back(NAME_MAX, 'n');
  for (const std::string& name : names) {
    write(inside(name), "");
    EXPECT_EQ(found(name), identity(inside(name))) << name;
  }
  EXPECT_EQ(found(std::string(NAME_MAX + 1, 'n')), "none");
  std::string path;
  while (path.size() + 6 < PATH_MAX) path += path.size() % 2 == 0 ? "./" : "/";
  path.resize(PATH_MAX - 5, '/');
  EXPECT_EQ(found(path + "file"), identity(inside("file")));
  EXPECT_EQ(found("/" + path + "file"), identity(inside("file")))
      << "the first slash is none of it";
  EXPECT_EQ(found(path + "/file"), "none");
  EXPECT_EQ(found(std::string(100'000, 'a')), "none");
}

TEST_P(FileTreeTest, OpensRegularFilesOnly) {
  write(inside("odd"), "12345");
  ASSERT_EQ(::chmod(inside("odd").c_str(), 06751), 0);
  ASSERT_EQ(::mkfifo(inside("pipe").c_str(), 0644), 0);
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  inside("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::chmod(inside("socket").c_str(), 0777), 0);
  link("to-pipe", "pipe");

  const auto odd = tree_->find("odd");
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->kind, Kind::kRegular);
  EXPECT_TRUE(odd->is_readable);
  EXPECT_EQ(odd->mode, 06751U);
  EXPECT_EQ(odd->size, 5U);
  char bytes[8];
  EXPECT_EQ(readAt(odd->file, bytes, 8, 0), 5);
  EXPECT_EQ(::fcntl(odd->file.get(), F_GETFL) & (O_ACCMODE | O_PATH), O_RDONLY);
  EXPECT_EQ(::fcntl(odd->file.get(), F_GETFD), FD_CLOEXEC);

  for (const char* name : {"pipe", "to-pipe", "socket", "dir", ""}) {
    const auto other = tree_->find(name);
    ASSERT_TRUE(other) << name;
    EXPECT_EQ(other->kind, name[0] == 'd' || name[0] == 0 ? Kind::kDirectory : Kind::kOther);
    EXPECT_TRUE(other->is_readable) << name;
    EXPECT_NE(::fcntl(other->file.get(), F_GETFL) & O_PATH, 0) << name;
    EXPECT_EQ(::fcntl(other->file.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::open(inside("pipe").c_str(), O_WRONLY | O_NONBLOCK), -1) << "nobody reads it";
    EXPECT_EQ(errno, ENXIO);
  }
}

TEST_P(FileTreeTest, TellsWhatMayBeRead) {
  struct Row {
    const char* path;
    mode_t mode;
    bool is_readable;
  };
  // For the owner and for anybody else alike, as either may run this.
  const std::vector<Row> rows = {
      {"file", 0, false},         {"dir/file", 0444, true},  {"dir/nested/file", 0111, false},
      {"pipe", 0222, false},      {"open-pipe", 0444, true}, {"dir", 0111, false},
      {"dir/nested", 0555, true},
  };
  for (const char* name : {"pipe", "open-pipe"}) {
    ASSERT_EQ(::mkfifo(inside(name).c_str(), 0600), 0);
  }
  fs::create_directory(inside("closed"));
  write(inside("closed/file"), "");
  ASSERT_EQ(::chmod(inside("closed").c_str(), 0444), 0);
  for (const Row& row : rows) ASSERT_EQ(::chmod(inside(row.path).c_str(), row.mode), 0);
  asNobody([&] {
    for (const Row& row : rows) {
      const auto file = tree_->find(row.path);
      ASSERT_TRUE(file) << row.path;
      EXPECT_EQ(file->is_readable, row.is_readable) << row.path;
      EXPECT_EQ(file->mode, row.mode) << row.path;
    }
    EXPECT_TRUE(tree_->find("closed"));
    for (const char* path : {"closed/file", "closed/.", "closed/.."}) {
      EXPECT_EQ(found(path), "none") << path;
    }
  });
  for (const char* path : {"dir", "closed"}) ::chmod(inside(path).c_str(), 0755);
}

// Another thread exchanges names, or moves the directory that the way goes through out of the root.
TEST_P(FileTreeTest, FindsNothingOutsideWhileNamesChange) {
  fs::create_directories(inside("changing/deep"));
  write(inside("changing/file"), "");
  link("out", "../outside");
  link("out-file", "../outside/secret");
  fs::create_directories(inside("home/moving"));
  write(inside("home/file"), "");
  ASSERT_EQ(::mkfifo(inside("pipe").c_str(), 0644), 0);

  struct Row {
    std::string one, other;
    unsigned how;
    const char* path;
    std::vector<std::string> may_be_found;
  };
  const std::vector<Row> rows = {
      {inside("changing"), inside("out"), RENAME_EXCHANGE, "changing/file", {"changing/file"}},
      {inside("changing"),
       inside("out"),
       RENAME_EXCHANGE,
       "changing/deep/../file",
       {"changing/file"}},
      {inside("file"), inside("out-file"), RENAME_EXCHANGE, "file", {"file"}},
      {inside("file"), inside("pipe"), RENAME_EXCHANGE, "file", {"file", "pipe"}},
      {inside("dir/file"),
       inside("dir/nested/file"),
       RENAME_EXCHANGE,
       "dir/file",
       {"dir/file", "dir/nested/file"}},
      {inside("home/moving"), outside("moving"), 0, "home/moving/../file", {"home/file"}},
  };
  for (const Row& row : rows) {
    std::vector<std::string> allowed = {"none"};
    for (const std::string& name : row.may_be_found) allowed.push_back(identity(inside(name)));
    std::atomic<int> changes = 0;
    std::jthread changing([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        // There and back.
        for (int i = 0; i < 2; ++i) {
          const std::string& from = i == 0 ? row.one : row.other;
          const std::string& to = i == 0 ? row.other : row.one;
          if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), row.how) == 0) ++changes;
        }
      }
    });
    int files = 0;
    for (int i = 0; i < 3000 || (i < 1'000'000 && (files == 0 || changes < 100)); ++i) {
      const std::string file = found(row.path);
      ASSERT_NE(std::find(allowed.begin(), allowed.end(), file), allowed.end())
          << row.path << " is " << file;
      files += file != "none";
    }
    EXPECT_GT(files, 0) << row.path;
    EXPECT_GE(changes, 100) << row.path;
  }
}

TEST_P(FileTreeTest, NoticesAnotherRoot) {
  const test::StoppedClock clock;
  const std::string place = directory_.path("place");
  const FileTree tree(place, GetParam());
  const auto at = [&](const char* path) { return identity(tree.find(path)); };
  EXPECT_EQ(at("file"), "none");
  fs::create_directory_symlink("root", place);
  EXPECT_EQ(at("file"), identity(inside("file"))) << "at once, through the link";

  fs::remove(place);
  fs::create_directory_symlink("outside", place);
  EXPECT_EQ(at("file"), identity(inside("file"))) << "not examined yet";
  EXPECT_EQ(at("secret"), identity(outside("secret"))) << "at once, as it was not there";
  EXPECT_EQ(at("file"), identity(outside("file")));

  fs::remove(place);
  fs::create_directory_symlink("root", place);
  advanceClock(100ms);
  EXPECT_EQ(at("file"), identity(outside("file")));
  advanceClock(1ms);
  EXPECT_EQ(at("file"), identity(inside("file")));

  fs::remove(place);
  EXPECT_EQ(at("nothing"), "none");
  EXPECT_EQ(at("file"), "none");
  write(place, "no directory");
  EXPECT_EQ(at(""), "none");
  for (const std::string& root : {""s, "/\0"s, place + "/missing"}) {
    EXPECT_FALSE(FileTree(root, GetParam()).find("")) << root;
  }
}

TEST_P(FileTreeTest, LogsThatDescriptorsHaveRunOut) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "UBSan, which comes with ASan here, needs a pipe to tell an object's type";
#endif
  const test::LogCapture log;
  EXPECT_NE(found("dir/file"), "none");
  advanceClock(1s);
  const test::StoppedClock clock;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(next);
  // With so few descriptors left; some four are enough both ways.
  int left = 0;
  for (std::string file = "none"; file == "none" && left < 10; ++left) {
    const rlimit few{static_cast<rlim_t>(next + left), limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    file = found("dir/file");
  }
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_GE(left, 3);
  EXPECT_LE(left, 6);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_NE(log.lines()[0].find("Too many open files"), std::string::npos) << log.lines()[0];
}

TEST(FileTree, TellsWhetherCaseCounts) {
  const test::TemporaryDirectory directory;
  ASSERT_TRUE(createExclusive(directory.path("name")));
  const bool folds = fs::exists(directory.path("NAME"));
  const auto told = hasCaseSensitiveNames(directory.path());
  ASSERT_TRUE(told) << "which file system is this?";
  EXPECT_EQ(*told, !folds);
  EXPECT_EQ(hasCaseSensitiveNames("/proc"), std::nullopt);
  EXPECT_EQ(hasCaseSensitiveNames(directory.path("missing")), std::nullopt);
  EXPECT_EQ(hasCaseSensitiveNames(directory.path("name")), std::nullopt);
  EXPECT_EQ(hasCaseSensitiveNames(directory.path() + "\0"s), std::nullopt);
}

}  // namespace
}  // namespace vel
