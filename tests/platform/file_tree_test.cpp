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
#include "platform/words.h"
#include "support/log_capture.h"
#include "support/socket_peer.h"
#include "support/stopped_clock.h"
#include "support/temporary_directory.h"

namespace vel {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Kind = FoundFile::Kind;
using Way = FileTree::Way;
using test::words;
namespace fs = std::filesystem;

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
  return found && ::fstat(found->file->get(), &status) == 0 ? identity(status) : "none";
}

/// A root with files and directories, and a directory outside. Each test runs both ways.
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
    EXPECT_LE(test::openDescriptorCount(), before_ + 1) << "the root's alone is kept";
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
  /// Whether the two names have changed places, in one step.
  static bool exchange(const std::string& one, const std::string& other) {
    return ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
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
  const size_t before_ = test::openDescriptorCount();

 protected:
  const test::TemporaryDirectory directory_;
  std::unique_ptr<FileTree> tree_;
};

INSTANTIATE_TEST_SUITE_P(, FileTreeTest, testing::Values(Way::kBest, Way::kComponents),
                         [](const auto& instance) {
                           return instance.param == Way::kBest ? "ByKernel" : "ByComponents";
                         });

TEST_P(FileTreeTest, FollowsOnlyWhatStaysInside) {
  link("absolute", inside("file"));
  link("absolute-root", inside(""));
  link("absolute-out", outside("secret"));
  const std::vector<std::string> links = words(
      "to-file file  to-dir dir  to-dir-slash dir//  to-file-slash file/  here .  slash /  named "
      "/file "
      "round dir/../to-dir/nested/..  dir/up ../file  dir/nested/up ../../dir/nested/file "
      "dangling nothing  loop loop  out ../outside  out-file ../outside/secret "
      "out-and-in ../root/file  dir/out ../../outside/secret");
  for (size_t i = 0; i < links.size(); i += 2) link(links[i], links[i + 1]);

  // Paths with the file that each leads to.
  const std::vector<std::string> inner = words(
      ". .  file file  dir/nested/file dir/nested/file  dir/ dir  dir//nested/// dir/nested "
      "dir/. dir  dir/.. .  dir/nested/../file dir/file  dir/nested/../../file file "
      "to-file file  to-dir dir  to-dir/ dir  to-dir/file dir/file  to-dir/../file file "
      "to-dir-slash/file dir/file  here/here/here/file file  round/file dir/file "
      "dir/up file  dir/nested/up dir/nested/file");
  std::vector<std::string> missing = words(
      "file/ file/. file/.. file/file to-file/ to-file-slash nothing nothing/../file dangling "
      "loop loop/.. .. ../ ../root/file ../outside/secret dir/../../root here/.. "
      "to-dir/nested/../../../root/file out out/ out/secret out/../root/file out-file out-and-in "
      "dir/out absolute absolute-root/file absolute-out slash slash/etc named");
  missing.insert(missing.end(), {"\0"s, "file\0"s, "dir\0/../file"s});
  for (const std::string prefix : {"", "/", "///", "./", "dir/../", "dir/nested/../../", "here/"}) {
    EXPECT_EQ(found(prefix), identity(inside(""))) << prefix;
    for (size_t i = 0; i < inner.size(); i += 2) {
      EXPECT_EQ(found(prefix + inner[i]), identity(inside(inner[i + 1]))) << prefix << inner[i];
    }
    for (const std::string& path : missing) {
      EXPECT_EQ(found(prefix + path), "none") << prefix << path;
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
  EXPECT_EQ(readAt(*odd->file, bytes, 8, 0), 5);
  EXPECT_EQ(::fcntl(odd->file->get(), F_GETFL) & (O_ACCMODE | O_PATH), O_RDONLY);
  EXPECT_EQ(::fcntl(odd->file->get(), F_GETFD), FD_CLOEXEC);

  for (const char* name : {"pipe", "to-pipe", "socket", "dir", ""}) {
    const auto other = tree_->find(name);
    ASSERT_TRUE(other) << name;
    EXPECT_EQ(other->kind, name[0] == 'd' || name[0] == 0 ? Kind::kDirectory : Kind::kOther);
    EXPECT_TRUE(other->is_readable) << name;
    EXPECT_NE(::fcntl(other->file->get(), F_GETFL) & O_PATH, 0) << name;
    EXPECT_EQ(::fcntl(other->file->get(), F_GETFD), FD_CLOEXEC);
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
      {"dir/nested", 0505, true},
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
  fs::create_directory(outside("moving"));
  write(inside("home/file"), "");
  ASSERT_EQ(::mkfifo(inside("pipe").c_str(), 0644), 0);

  struct Row {
    std::string one, other;  // exchanged over and over
    const char* path;
    const char* may_be_found;
  };
  const std::vector<Row> rows = {
      {"changing", "out", "changing/file", "changing/file"},
      {"changing", "out", "changing/deep/../file", "changing/file"},
      {"file", "out-file", "file", "file"},
      {"file", "pipe", "file", "file pipe"},
      {"dir/file", "dir/nested/file", "dir/file", "dir/file dir/nested/file"},
      {"home/moving", "../outside/moving", "home/moving/../file", "home/file"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> allowed = {"none"};
    for (const auto& name : words(row.may_be_found)) allowed.push_back(identity(inside(name)));
    std::atomic<int> changes = 0;
    std::jthread changing([&](const std::stop_token& stop) {
      // An even number of times, so that all is in its place again.
      for (int i = 0; i % 2 != 0 || !stop.stop_requested(); ++i) {
        changes += exchange(inside(row.one), inside(row.other));
      }
    });
    int files = 0;
    for (int i = 0; i < 3000 || (i < 1'000'000 && (files == 0 || changes < 100)); ++i) {
      const auto status = tree_->find(row.path);
      const std::string file = identity(status);
      if (status) {
        const bool isNamed = (::fcntl(status->file->get(), F_GETFL) & O_PATH) != 0;
        ASSERT_EQ(isNamed, status->kind != Kind::kRegular) << row.path;
      }
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
  const auto lead = [&](const char* target) {
    fs::remove(place);
    fs::create_directory_symlink(target, place);
  };
  EXPECT_EQ(at("file"), "none");
  lead("root");
  EXPECT_EQ(at("file"), identity(inside("file"))) << "at once, through the link";
  lead("outside");
  EXPECT_EQ(at("file"), identity(inside("file"))) << "not examined yet";
  EXPECT_EQ(at("secret"), identity(outside("secret"))) << "at once, as it was not there";
  EXPECT_EQ(at("file"), identity(outside("file")));
  lead("root");
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

TEST_P(FileTreeTest, ServesThreadsWhileTheRootChanges) {
  const std::string place = directory_.path("place"), other = directory_.path("other");
  fs::create_directory_symlink("root", place);
  fs::create_directory_symlink("outside", other);
  const FileTree tree(place, GetParam());
  const std::string one = identity(inside("file")), two = identity(outside("file"));
  std::atomic<int> running = 2;
  const auto look = [&] {
    for (int i = 0; i < 2000; ++i) {
      // What is missing has the root examined each time.
      EXPECT_EQ(identity(tree.find("nothing")), "none");
      const std::string file = identity(tree.find("file"));
      EXPECT_TRUE(file == one || file == two) << file;
    }
    --running;
  };
  const std::jthread first(look), second(look);
  while (running > 0) exchange(place, other);
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
