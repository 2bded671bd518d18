#include "http/body_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "corvane/error.h"
#include "corvane/file_manager.h"
#include "corvane/limits.h"
#include "support/log_capture.h"

namespace vel {
namespace {

using test::LogCapture;
using testing::HasSubstr;
using testing::SizeIs;

constexpr uint64_t kLimit = VELLimits().bodyInMemory;

mode_t permissionsOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0U;
}

TEST(BodyStore, KeepsFiveMebibytesInMemory) {
  BodyStore store(VELUUID::UUID(), kLimit);
  store.append(std::string(kLimit - 1, 'a'));
  store.append("b");
  store.finish();
  EXPECT_FALSE(store.isInFile());
  EXPECT_EQ(store.length(), 5'242'880U);
  EXPECT_EQ(store.takeBytes(), std::string(kLimit - 1, 'a') + "b");
}

TEST(BodyStore, MovesToAFileOfItsOwnWithOneByteMore) {
  const VELUUID identifier = VELUUID::UUID();
  std::string path;
  {
    BodyStore store(identifier, kLimit);
    store.append(std::string(kLimit, 'a'));
    store.append("b");
    store.append("c");
    store.finish();
    ASSERT_TRUE(store.isInFile());
    EXPECT_EQ(store.takeBytes(), "");
    path = store.path();
  }
  EXPECT_EQ(path, vel_temporaryItemsURL().filePath() + "/Uploads/" + identifier.UUIDString());
  EXPECT_EQ(readWholeFile(path), std::string(kLimit, 'a') + "bc") << "outlives the store";
  EXPECT_EQ(permissionsOf(path), 0600U);
  EXPECT_EQ(permissionsOf(std::filesystem::path(path).parent_path()), 0700U);
  std::filesystem::remove(path);
}

TEST(BodyStore, RemovesItsFileWhenDiscarded) {
  BodyStore store(VELUUID::UUID(), 3);
  store.append("abcd");
  store.finish();
  const std::string path = store.path();
  ASSERT_TRUE(std::filesystem::exists(path));
  store.discard();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(BodyStore, LogsOnceWhatItCannotWriteAndStillNamesTheFile) {
  const VELUUID identifier = VELUUID::UUID();
  const std::string inTheWay =
      vel_temporaryItemsURL().filePath() + "/Uploads/" + identifier.UUIDString();
  std::filesystem::create_directories(inTheWay + "/full");
  const LogCapture log;
  BodyStore store(identifier, 3);
  store.append("abcd");
  store.append("efgh");
  store.finish();
  EXPECT_EQ(store.path(), inTheWay);
  EXPECT_EQ(store.length(), 8U);
  ASSERT_THAT(log.lines(), SizeIs(1));
  EXPECT_THAT(log.lines().front(), HasSubstr("Request body is lost"));
  std::filesystem::remove_all(inTheWay);
}

TEST(BodyStore, RaisesWhenItIsFedAfterItsEnd) {
  BodyStore store(VELUUID::UUID(), 3);
  store.finish();
  try {
    store.append("a");
    FAIL();
  } catch (const VELException& exception) {
    EXPECT_EQ(exception.name(), VELInternalInconsistencyException);
    EXPECT_EQ(exception.reason(), "-processBodyData was called without a body data object");
  }
}

}  // namespace
}  // namespace vel
