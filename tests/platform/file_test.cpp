// Tests of files, temporary directories and input streams.
#include "platform/file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "corvane/file_manager.h"
#include "corvane/input_stream.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"

namespace vel {
namespace {

using test::TemporaryDirectory;

unsigned modeOf(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(File, KeepsWhatWasWritten) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("file");
  const std::string content(10'000, 'z');
  {
    const FileDescriptor file = createExclusive(path);
    ASSERT_TRUE(file);
    EXPECT_TRUE(writeAll(file, content));
    EXPECT_TRUE(writeAll(file, "end"));
    EXPECT_TRUE(synchronize(file));
    EXPECT_EQ(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }
  EXPECT_EQ(modeOf(path), 0600U);
  EXPECT_EQ(fileSize(path), content.size() + 3);
  EXPECT_EQ(readWholeFile(path), content + "end");
  const FileDescriptor file = openForReading(path);
  EXPECT_EQ(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  char buffer[8];
  EXPECT_EQ(readAt(file, buffer, 8, content.size() - 1), 4);
  EXPECT_EQ(std::string_view(buffer, 4), "zend");
  EXPECT_EQ(readAt(file, buffer, 8, UINT64_MAX), 0);
  EXPECT_FALSE(writeAll(file, "no"));
}

TEST(File, TellsWhatFailed) {
  const TemporaryDirectory directory;
  const std::string absent = directory.path("absent");
  VELError error;
  EXPECT_FALSE(openForReading(absent, &error));
  EXPECT_EQ(error.domain(), VELPOSIXErrorDomain);
  EXPECT_EQ(error.code(), ENOENT);
  EXPECT_FALSE(readWholeFile(directory.path(), &error));
  EXPECT_EQ(error.code(), EISDIR);
  EXPECT_FALSE(fileSize(absent));
  EXPECT_FALSE(fileSize(directory.path()));
  EXPECT_TRUE(removeFile(absent));
  EXPECT_FALSE(removeFile(directory.path()));
  EXPECT_FALSE(createExclusive(absent + "/file", 0600, &error));
  EXPECT_EQ(error.code(), ENOENT);
}

TEST(File, APathEndsAtNoNul) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("file");
  ASSERT_TRUE(createExclusive(path));
  const std::string longer = path + std::string(1, '\0') + ".txt";
  EXPECT_FALSE(openForReading(longer));
  EXPECT_FALSE(createExclusive(longer));
  EXPECT_FALSE(fileSize(longer));
  EXPECT_FALSE(makeDirectories(directory.path() + std::string(1, '\0')));
  EXPECT_TRUE(fileSize(path));
}

TEST(File, OpeningANamedPipeDoesNotWait) {
  const TemporaryDirectory directory;
  ASSERT_EQ(::mkfifo(directory.path("pipe").c_str(), 0600), 0);
  EXPECT_TRUE(openForReading(directory.path("pipe")));
}

TEST(File, ExclusiveCreationReplacesALinkInsteadOfFollowingIt) {
  const TemporaryDirectory directory;
  const std::string victim = directory.path("victim");
  const std::string path = directory.path("upload");
  ASSERT_TRUE(writeAll(createExclusive(victim), "precious"));
  ASSERT_EQ(::symlink(victim.c_str(), path.c_str()), 0);
  const FileDescriptor file = createExclusive(path);
  ASSERT_TRUE(file);
  EXPECT_TRUE(writeAll(file, "new"));
  EXPECT_EQ(readWholeFile(victim), "precious");
  EXPECT_EQ(readWholeFile(path), "new");
}

TEST(File, MakesPrivateDirectories) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("a/b/c");
  EXPECT_TRUE(makeDirectories(path + "/"));
  EXPECT_TRUE(makeDirectories(path));
  EXPECT_EQ(modeOf(path), 0700U);
  EXPECT_EQ(modeOf(directory.path("a")), 0700U);
  ASSERT_EQ(::chmod(path.c_str(), 0777), 0);
  EXPECT_TRUE(makeDirectories(path));
  EXPECT_EQ(modeOf(path), 0700U);
}

TEST(File, RefusesDirectoriesThatAreNotItsOwn) {
  const TemporaryDirectory directory;
  const std::string link = directory.path("link");
  ASSERT_EQ(::symlink(directory.path().c_str(), link.c_str()), 0);
  VELError error;
  EXPECT_FALSE(makeDirectories(link, 0700, &error));
  EXPECT_FALSE(makeDirectories(link + "/", 0700, &error));
  EXPECT_EQ(error.code(), ENOTDIR);
  const std::string file = directory.path("file");
  ASSERT_TRUE(createExclusive(file));
  EXPECT_FALSE(makeDirectories(file, 0700, &error));
  EXPECT_FALSE(makeDirectories(file + "/x", 0700, &error));
  EXPECT_EQ(error.code(), ENOTDIR);
  if (::geteuid() == 0) {
    const std::string foreign = directory.path("foreign");
    ASSERT_TRUE(makeDirectories(foreign));
    ASSERT_EQ(::chown(foreign.c_str(), 12345, 12345), 0);
    EXPECT_FALSE(makeDirectories(foreign, 0700, &error));
  } else {
    EXPECT_FALSE(makeDirectories("/", 0700, &error));
  }
  EXPECT_EQ(error.code(), EPERM);
}

TEST(TemporaryItems, IsMadeOnEveryCall) {
  const TemporaryDirectory directory;
  ASSERT_EQ(::setenv("TMPDIR", (directory.path() + "//").c_str(), 1), 0);
  const std::string expected = directory.path("org.corvane");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(vel_temporaryItemsURL().filePath(), expected);
    EXPECT_EQ(modeOf(expected), 0700U);
    ASSERT_EQ(::rmdir(expected.c_str()), 0);
  }
  const test::LogCapture log;
  ASSERT_TRUE(createExclusive(expected));
  EXPECT_EQ(vel_temporaryItemsURL().filePath(), expected);
  EXPECT_THAT(log.lines(), testing::ElementsAre(testing::HasSubstr(expected)));
  ::unsetenv("TMPDIR");
}

std::string readAll(VELInputStream* stream) {
  std::string all;
  uint8_t buffer[3];
  for (ptrdiff_t count = 1; count > 0;) {
    count = stream->read(buffer, sizeof buffer);
    for (ptrdiff_t i = 0; i < count; ++i) all.push_back(static_cast<char>(buffer[i]));
  }
  return all;
}

TEST(InputStream, GoesThroughItsStates) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("file");
  ASSERT_TRUE(writeAll(createExclusive(path), "Hello, stream"));
  for (const auto& stream : {VELInputStream::inputStreamWithData("Hello, stream"),
                             VELInputStream::inputStreamWithFileAtPath(path)}) {
    uint8_t byte = 0;
    EXPECT_EQ(stream->streamStatus(), VELStreamStatus::kNotOpen);
    EXPECT_EQ(stream->read(&byte, 1), -1);
    stream->open();
    EXPECT_EQ(stream->streamStatus(), VELStreamStatus::kOpen);
    EXPECT_EQ(stream->read(&byte, 0), 0);
    EXPECT_EQ(stream->streamStatus(), VELStreamStatus::kOpen);
    EXPECT_EQ(readAll(stream.get()), "Hello, stream");
    EXPECT_EQ(stream->streamStatus(), VELStreamStatus::kAtEnd);
    EXPECT_EQ(stream->read(&byte, 1), 0);
    stream->close();
    stream->open();
    EXPECT_EQ(stream->streamStatus(), VELStreamStatus::kClosed);
    EXPECT_EQ(stream->read(&byte, 1), -1);
  }
}

TEST(InputStream, FailsWhereTheFileDoes) {
  const TemporaryDirectory directory;
  uint8_t byte = 0;
  const auto absent = VELInputStream::inputStreamWithFileAtPath(directory.path("absent"));
  absent->open();
  EXPECT_EQ(absent->streamStatus(), VELStreamStatus::kError);
  const auto unreadable = VELInputStream::inputStreamWithFileAtPath(directory.path());
  unreadable->open();
  EXPECT_EQ(unreadable->read(&byte, 1), -1);
  EXPECT_EQ(unreadable->streamStatus(), VELStreamStatus::kError);
  EXPECT_EQ(unreadable->read(&byte, 1), -1);
}

}  // namespace
}  // namespace vel
