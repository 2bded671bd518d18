// Tests of the response base: fields, copies, what it says without a body, and the factories.
#include "corvane/response.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "corvane/error.h"
#include "corvane/responses.h"
#include "responses/content_types.h"
#include "support/temporary_directory.h"

namespace {

using testing::Contains;
using testing::EndsWith;
using testing::Optional;
using testing::Pair;
using testing::StartsWith;
using testing::ThrowsMessage;
using vel::test::TemporaryDirectory;

std::vector<std::string> namesOf(const VELResponse& response) {
  std::vector<std::string> names;
  for (const VELHeaderField& field : response.headerFields()) names.push_back(field.name);
  return names;
}

TEST(Response, KeepsFieldsByExactNameInTheirFirstOrder) {
  VELResponse response;
  response.setValueForHeader("text/plain", "content-type");
  response.setContentType("text/html");
  response.setObjectForKeyedSubscript("1", "X-One");
  const VELDictionary before = response.headers();
  response.setValueForHeader("text/css", "content-type");
  EXPECT_THAT(namesOf(response), testing::ElementsAre("content-type", "Content-Type", "X-One"));
  EXPECT_EQ(response["content-type"], "text/css");
  EXPECT_EQ(response.contentType(), "text/html");
  EXPECT_THAT(before, Contains(Pair("content-type", "text/plain")));

  response.setValueForHeader(std::nullopt, "content-type");
  response.removeValueForHeader("absent");
  EXPECT_FALSE(response.valueForHeader("content-type"));
  EXPECT_THAT(namesOf(response), testing::ElementsAre("Content-Type", "X-One"));

  response.setHeaders({{"B", "2"}, {"A", "1"}});
  EXPECT_EQ(response.headers(), (VELDictionary{{"A", "1"}, {"B", "2"}}));
}

TEST(Response, WithoutABodyRaisesWhenItIsRead) {
  VELResponse response;
  EXPECT_EQ(response.status(), 0U);
  EXPECT_EQ(response.contentLength(), 0U);
  EXPECT_FALSE(response.isChunked());
  EXPECT_THAT([&response] { response.readDataOfLength(1); },
              ThrowsMessage<VELException>(
                  "NSInvalidArgumentException: Subclasses must override readDataOfLength:"));
  EXPECT_THAT([&response] { (void)response.isFinished(); },
              ThrowsMessage<VELException>(
                  "NSInvalidArgumentException: Subclasses must override isFinished"));
  response.connectionDidClose();
}

TEST(Response, IsDescribedByClassAndStatus) {
  EXPECT_THAT(VELNotFoundResponse().description(), StartsWith("<VELNotFoundResponse: 0x"));
  EXPECT_THAT(VELNotFoundResponse().description(), EndsWith("> { status=\"404\" }"));
}

TEST(Response, CopiesEveryProperty) {
  VELResponse response;
  response.setStatus(207);
  response.setStatusDescription("Several");
  response.setContentLength(12);
  response.setChunked(true);
  response.setOffset(3);
  response.setValueForHeader("1", "X-One");
  const auto copy = response.copy();
  EXPECT_EQ(copy->status(), 207U);
  EXPECT_EQ(copy->statusDescription(), "Several");
  EXPECT_EQ(copy->contentLength(), 12U);
  EXPECT_TRUE(copy->isChunked());
  EXPECT_EQ(copy->offset(), 3U);
  EXPECT_EQ(copy->valueForHeader("X-One"), "1");
}

TEST(ResponseFactory, GivesDataALengthFieldOfItsOwn) {
  for (const std::string& text : {std::string(), std::string(1'234'567, 'x')}) {
    const auto response = VELResponse::responseWithData(VELData(text), 201, "text/plain");
    EXPECT_EQ(response->status(), 201U);
    EXPECT_EQ(response->contentLength(), text.size());
    EXPECT_EQ(response->valueForHeader("Content-Length"), std::to_string(text.size()));
    EXPECT_EQ(response->contentType(), "text/plain");
  }
  EXPECT_FALSE(VELResponse::responseWithData(VELData(), 200)->contentType());
}

TEST(ResponseFactory, EncodesText) {
  constexpr unsigned kUnknownEncoding = 8;
  const struct {
    std::string_view text;
    unsigned encoding;
    std::string_view bytes;
  } cases[] = {
      {"héllo", VELUTF8StringEncoding, "h\xC3\xA9llo"},
      {"hello", VELASCIIStringEncoding, "hello"},
      {"héllo", VELASCIIStringEncoding, ""},
      {"hé\u00FF", VELISOLatin1StringEncoding, "h\xE9\xFF"},
      {"h\u0100", VELISOLatin1StringEncoding, ""},
      {"é€😀", VELUTF16StringEncoding, {"\xFF\xFE\xE9\x00\xAC\x20\x3D\xD8\x00\xDE", 10}},
      {"broken \xFF", VELUTF8StringEncoding, ""},
      {"hello", kUnknownEncoding, ""},
  };
  for (const auto& [text, encoding, bytes] : cases) {
    const auto response = VELResponse::responseWithString(text, encoding, 200);
    EXPECT_EQ(response->contentLength(), bytes.size()) << text << " in " << encoding;
    EXPECT_EQ(response->readDataOfLength(100).view(), bytes) << text << " in " << encoding;
  }
}

TEST(ResponseFactory, TakesTheLengthOfAStreamAsGiven) {
  const auto response =
      VELResponse::responseWithStream(VELInputStream::inputStreamWithData("x"), 99, 200, "a/b");
  EXPECT_EQ(response->contentLength(), 99U);
  EXPECT_EQ(response->headers(), (VELDictionary{{"Content-Type", "a/b"}}));
}

TEST(ResponseFactory, AsksTheFileForItsLengthAndItsNameForItsType) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("text.css");
  std::ofstream(path) << "0123456789";
  const auto response = VELResponse::responseWithFileURL(VELURL::fileURLWithPath(path), 200);
  EXPECT_EQ(response->contentLength(), 10U);
  EXPECT_EQ(response->headers(), (VELDictionary{{"Content-Type", "text/css"}}));

  const auto given = VELResponse::responseWithFileURL(VELURL::fileURLWithPath(path), 200, "a/b");
  EXPECT_EQ(given->contentType(), "a/b");

  // An absent file is known by its name only.
  for (const auto& [name, type] : {std::pair("a.html", std::optional<std::string>("text/html")),
                                   std::pair("photo.JPG", std::optional<std::string>()),
                                   std::pair("archive.tar.gz", std::optional<std::string>()),
                                   std::pair("plain", std::optional<std::string>())}) {
    const auto absent =
        VELResponse::responseWithFileURL(VELURL::fileURLWithPath(directory.path(name)), 200);
    EXPECT_EQ(absent->contentLength(), 0U);
    EXPECT_EQ(absent->contentType(), type) << name;
  }
}

TEST(ContentTypes, AreFoundByExactExtension) {
  EXPECT_THAT(vel::contentTypeForFileExtension("7z"),
              Optional(std::string_view("application/x-7z-compressed")));
  EXPECT_THAT(vel::contentTypeForFileExtension("ts"),
              Optional(std::string_view("application/typescript")));
  EXPECT_THAT(vel::contentTypeForFileExtension("zip"),
              Optional(std::string_view("application/zip")));
  for (const std::string_view unknown : {"", "CSS", "cs", "css ", "zz", "gz"}) {
    EXPECT_FALSE(vel::contentTypeForFileExtension(unknown)) << unknown;
  }
}

}  // namespace
