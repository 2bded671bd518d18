#include "http/body_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "corvane/error.h"
#include "corvane/file_manager.h"
#include "support/log_capture.h"

namespace vel {
namespace {

using test::LogCapture;
using testing::HasSubstr;
using testing::SizeIs;
using testing::ThrowsMessage;

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
  EXPECT_THAT([&store] { store.append("a"); },
              ThrowsMessage<VELException>("NSInternalInconsistencyException: -processBodyData was "
                                          "called without a body data object"));
}

}  // namespace
}  // namespace vel
