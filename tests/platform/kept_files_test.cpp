// Files that stay open for a moment: that nothing is served which is no longer so.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "corvane/serial_queue.h"
#include "platform/file_tree.h"
#include "support/manual_loops.h"
#include "support/socket_peer.h"
#include "support/stopped_clock.h"
#include "support/temporary_directory.h"

namespace vel::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class KeptFilesTest : public testing::Test {
 protected:
  KeptFilesTest() {
    fs::create_directories(directory_.path("root/dir"));
    write("root/dir/file", "first");
  }

  ~KeptFilesTest() override { loops_->loops()->stop(); }

  void write(const std::string& name, const std::string& content) const {
    std::ofstream(directory_.path(name)) << content;
  }
  void rename(const std::string& from, const std::string& to) const {
    fs::rename(directory_.path(from), directory_.path(to));
  }
  /// The bytes of the file at `path`, found on a queue as a route does it.
  std::string content(const std::string& path = "dir/file") {
    std::string text = "none";
    queue_->async([&] {
      const std::optional<FoundFile> found = tree_.find(path);
      if (!found || !found->is_readable) return;
      text.resize(found->size);
      text.resize(static_cast<size_t>(readAt(*found->file, text.data(), text.size(), 0)));
    });
    loops_->run();
    return text;
  }

  const size_t before_ = openDescriptorCount();
  const TemporaryDirectory directory_;
  StoppedClock clock_;
  const std::shared_ptr<ManualLoops> loops_ = std::make_shared<ManualLoops>();
  const std::shared_ptr<VELSerialQueue> queue_ =
      std::make_shared<VELSerialQueue>("test", loops_->loops());
  FileTree tree_{directory_.path("root")};
};

TEST_F(KeptFilesTest, AreTheFilesOfTheMoment) {
  const struct {
    const char* name;
    std::function<void()> change;
    std::string content;
  } cases[] = {
      {"longer", [&] { write("root/dir/file", "second"); }, "second"},
      {"shorter", [&] { write("root/dir/file", "3rd"); }, "3rd"},
      {"another file",
       [&] {
         write("root/other", "other");
         rename("root/other", "root/dir/file");
       },
       "other"},
      {"another directory",
       [&] {
         rename("root/dir", "root/former");
         fs::create_directory(directory_.path("root/dir"));
         write("root/dir/file", "new");
       },
       "new"},
      {"gone", [&] { fs::remove(directory_.path("root/dir/file")); }, "none"},
      {"a pipe", [&] { ASSERT_EQ(::mkfifo(directory_.path("root/dir/file").c_str(), 0644), 0); },
       ""},
  };
  EXPECT_EQ(content(), "first");
  for (const auto& [name, change, expected] : cases) {
    change();
    EXPECT_EQ(content(), expected) << name;
    EXPECT_EQ(content(), expected) << name;
  }
}

// The same file by a way that leads outside is noticed within a tenth of a second.
TEST_F(KeptFilesTest, LieBelowTheRoot) {
  EXPECT_EQ(content(), "first");
  rename("root/dir", "outside");
  fs::create_symlink("../outside", directory_.path("root/dir"));
  clock_.advance(101ms, *loops_);
  EXPECT_EQ(content(), "none");
}

TEST_F(KeptFilesTest, AreClosedWithTheirLoops) {
  EXPECT_EQ(content(), "first");
  const size_t open = openDescriptorCount();
  loops_->loops()->stop();
  EXPECT_LT(openDescriptorCount(), open);
}

TEST_F(KeptFilesTest, AreClosedWhenNobodyAsks) {
  for (int i = 0; i < 200; ++i) {
    write("root/" + std::to_string(i), "x");
    EXPECT_EQ(content(std::to_string(i)), "x");
  }
  // The root's, and those of the loops.
  const size_t most = openDescriptorCount();
  EXPECT_LE(most, before_ + 80);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(content("0"), "x");
    clock_.advance(1100ms, *loops_);
  }
  EXPECT_LT(openDescriptorCount(), most - 40);
  clock_.advance(1100ms, *loops_);
  clock_.advance(1100ms, *loops_);
  EXPECT_LE(openDescriptorCount(), before_ + 10);
}

}  // namespace
}  // namespace vel::test
