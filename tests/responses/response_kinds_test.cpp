// Tests of the kinds of responses: how each hands out its body, ends and is copied.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "corvane/error.h"
#include "corvane/responses.h"
#include "support/temporary_directory.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using testing::ThrowsMessage;
using vel::test::TemporaryDirectory;

constexpr uint64_t kPiece = 524'288;

TEST(DataResponse, HandsOutSlicesOfOneStorage) {
  std::string text(1'000'000, 'a');
  text[kPiece] = 'b';
  const auto response = VELResponse::responseWithData(VELData(text), 200);
  const VELData first = response->readDataOfLength(kPiece);
  EXPECT_FALSE(response->isFinished());
  // A range does not move it, which is meant.
  response->setOffset(0);
  const VELData second = response->readDataOfLength(kPiece);
  EXPECT_TRUE(response->isFinished());
  EXPECT_EQ(first.length(), kPiece);
  EXPECT_EQ(second.length(), 475'712U);
  EXPECT_EQ(second.view().front(), 'b');
  EXPECT_EQ(first.bytes() + kPiece, second.bytes());
  EXPECT_TRUE(response->readDataOfLength(kPiece).isEmpty());

  const auto copy = response->copy();
  EXPECT_FALSE(copy->isFinished());
  EXPECT_EQ(copy->readDataOfLength(1'000'000).bytes(), first.bytes());
  EXPECT_TRUE(copy->isFinished());
}

TEST(StreamResponse, ReadsItsStreamAndDeliversNothing) {
  const auto stream = VELInputStream::inputStreamWithData(std::string(10, 'x'));
  const auto response = VELResponse::responseWithStream(stream, 10, 200);
  EXPECT_TRUE(response->readDataOfLength(6).isEmpty());
  EXPECT_EQ(stream->streamStatus(), VELStreamStatus::kOpen);
  EXPECT_FALSE(response->isFinished());
  EXPECT_TRUE(response->readDataOfLength(6).isEmpty());
  uint8_t byte = 0;
  EXPECT_EQ(stream->read(&byte, 1), 1);
  EXPECT_TRUE(response->readDataOfLength(UINT64_MAX).isEmpty());
  EXPECT_TRUE(response->isFinished());
  EXPECT_TRUE(response->readDataOfLength(6).isEmpty());
  response->connectionDidClose();
  EXPECT_EQ(stream->streamStatus(), VELStreamStatus::kClosed);
  EXPECT_TRUE(response->isFinished());
}

TEST(StreamResponse, RaisesWhenItIsCopied) {
  const auto response =
      VELResponse::responseWithStream(VELInputStream::inputStreamWithData(""), 0, 200);
  EXPECT_THAT([&response] { response->copy(); },
              ThrowsMessage<VELException>(StartsWith("NSInternalInconsistencyException")));
}

class FileResponse : public testing::Test {
 protected:
  std::shared_ptr<VELResponse> responseFor(const std::string& content) {
    std::ofstream(path_) << content;
    return VELResponse::responseWithFileURL(VELURL::fileURLWithPath(path_), 200);
  }

  const TemporaryDirectory directory_;
  const std::string path_ = directory_.path("file");
};

TEST_F(FileResponse, EndsWithAShortRead) {
  const auto response = responseFor("0123456789");
  EXPECT_FALSE(response->isFinished());
  EXPECT_EQ(response->readDataOfLength(4).view(), "0123");
  EXPECT_EQ(response->readDataOfLength(6).view(), "456789");
  // A read that brings all that was asked for cannot know that it was the last.
  EXPECT_FALSE(response->isFinished());
  EXPECT_TRUE(response->readDataOfLength(6).isEmpty());
  EXPECT_TRUE(response->isFinished());
}

TEST_F(FileResponse, ReadsFromItsOffset) {
  const auto response = responseFor("0123456789");
  response->setOffset(7);
  EXPECT_EQ(response->readDataOfLength(kPiece).view(), "789");
  EXPECT_TRUE(response->isFinished());
  EXPECT_EQ(response->offset(), 7U);
  response->setOffset(2);
  EXPECT_FALSE(response->isFinished());
  EXPECT_EQ(response->readDataOfLength(3).view(), "234");
  // A new handle begins at the offset, not where the former one was.
  response->connectionDidClose();
  EXPECT_EQ(response->readDataOfLength(3).view(), "234");
  EXPECT_EQ(response->copy()->readDataOfLength(3).view(), "234");
  response->setOffset(UINT64_MAX);
  EXPECT_TRUE(response->readDataOfLength(3).isEmpty());
}

TEST_F(FileResponse, KeepsReadingTheFileThatItOpened) {
  const auto response = responseFor("0123456789");
  const VELData first = response->readDataOfLength(5);
  ASSERT_EQ(::unlink(path_.c_str()), 0);
  EXPECT_EQ(response->readDataOfLength(5).view(), "56789");
  response->connectionDidClose();
  EXPECT_TRUE(response->readDataOfLength(5).isEmpty());
  EXPECT_TRUE(response->isFinished());
  EXPECT_EQ(first.view(), "01234");
}

// A piece stands for a part of the file until somebody asks for its bytes, which are kept from then on.
TEST_F(FileResponse, GivesPartsOfTheFile) {
  const auto response = responseFor("0123456789");
  const VELData piece = response->readDataOfLength(8);
  const VELData part = piece.subdata(2, 100);
  const VELData copy = piece;
  EXPECT_EQ(part.view(), "234567");
  ASSERT_EQ(::truncate(path_.c_str(), 4), 0);
  EXPECT_EQ(copy.view(), std::string_view("0123\0\0\0\0", 8));
  EXPECT_EQ(copy.bytes(), piece.bytes());
  EXPECT_EQ(part.view(), "234567");
}

// However long it was said to be.
TEST_F(FileResponse, EndsWhereItsFileHasComeToEnd) {
  const auto response = responseFor("0123456789");
  ASSERT_EQ(::truncate(path_.c_str(), int64_t{1} << 40), 0);
  EXPECT_EQ(response->readDataOfLength(10).length(), 10U);
  ASSERT_EQ(::truncate(path_.c_str(), 14), 0);
  EXPECT_EQ(response->readDataOfLength(10).length(), 4U);
  EXPECT_TRUE(response->isFinished());
}

TEST_F(FileResponse, ReadsFilesThatSayTheyAreEmpty) {
  const auto response =
      VELResponse::responseWithFileURL(VELURL::fileURLWithPath("/proc/self/stat"), 200);
  EXPECT_THAT(response->readDataOfLength(kPiece).string(), HasSubstr(std::to_string(::getpid())));
}

template <typename Response>
std::shared_ptr<VELResponse> make() {
  return std::make_shared<Response>();
}

TEST(StatusResponse, KeepsItsStatusAndHasNoBody) {
  const struct {
    std::shared_ptr<VELResponse> response;
    uint64_t status;
    const char* name;
  } cases[] = {
      {make<VELRedirectResponse>(), 302, "VELRedirectResponse"},
      {make<VELPermanentRedirectResponse>(), 301, "VELPermanentRedirectResponse"},
      {make<VELBadRequestResponse>(), 400, "VELBadRequestResponse"},
      {make<VELNotAuthorizedResponse>(), 401, "VELNotAuthorizedResponse"},
      {make<VELForbiddenResponse>(), 403, "VELForbiddenResponse"},
      {make<VELNotFoundResponse>(), 404, "VELNotFoundResponse"},
      {make<VELMethodNotSupportedResponse>(), 405, "VELMethodNotSupportedResponse"},
      {make<VELSocketYieldResponse>(), 101, "VELSocketYieldResponse"},
  };
  for (const auto& [response, status, name] : cases) {
    SCOPED_TRACE(name);
    response->setStatus(200);
    response->setValueForHeader("1", "X-One");
    const bool closes = status == 400 || status == 405;
    for (const auto& answer : {response, response->copy()}) {
      EXPECT_EQ(answer->status(), status);
      EXPECT_EQ(answer->contentLength(), 0U);
      EXPECT_TRUE(answer->isFinished());
      EXPECT_TRUE(answer->readDataOfLength(kPiece).isEmpty());
      EXPECT_EQ(answer->valueForHeader("Connection").value_or(""), closes ? "close" : "");
      EXPECT_EQ(answer->valueForHeader("X-One"), "1");
      EXPECT_THAT(answer->description(), HasSubstr(name));
    }
  }
}

TEST(RedirectResponse, RaisesWhenItIsMadeWithAPath) {
  const auto raises = ThrowsMessage<VELException>(
      AllOf(StartsWith("NSUnknownKeyException"), HasSubstr("Location")));
  EXPECT_THAT([] { VELRedirectResponse("/elsewhere"); }, raises);
  EXPECT_THAT([] { VELPermanentRedirectResponse("/elsewhere"); }, raises);
}

}  // namespace
