// Requests as hosts make them, and as connections receive them.
#include "corvane/request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "http/request_access.h"
#include "support/temporary_directory.h"

namespace vel {
namespace {

std::shared_ptr<VELRequest> received(const std::vector<std::string>& lines) {
  auto request = std::make_shared<ReceivedRequest>();
  for (const std::string& line : lines) request->head().appendLine(line);
  EXPECT_EQ(request->head().appendLine("\r\n"), HeadProgress::kComplete);
  return request;
}

TEST(Request, StartsWithAnIdentifierAndNothingElse) {
  const VELRequest request;
  EXPECT_EQ(request.identifier(), request.identifier());
  EXPECT_NE(request.identifier(), VELRequest(std::nullopt).identifier());
  EXPECT_EQ(VELRequest(VELUUID()).identifier(), VELUUID());
  EXPECT_EQ(request.encoding(), VELUTF8StringEncoding);
  EXPECT_EQ(request.POSTParameters(), std::nullopt);
  EXPECT_EQ(request.body(), std::nullopt);
  EXPECT_EQ(request.connection(), nullptr);
  EXPECT_THAT(request.description(), testing::MatchesRegex("<VELRequest: 0x[0-9a-f]+> .*"));
}

TEST(Request, TellsWhatWasReceived) {
  const auto request = received(
      {"PATCH /a%20b/?x=1&y=%41+&x HTTP/1.1\r\n", "Host: h\r\n", "X-Many: 1\r\n", "x-many: 2\r\n"});
  EXPECT_EQ(request->method(), "PATCH");
  EXPECT_EQ(request->path(), "/a b");
  EXPECT_EQ(request->URL()->absoluteString(), "/a%20b/?x=1&y=%41+&x");
  for (const std::string_view name : {"X-Many", "x-many", "X-MANY"}) {
    EXPECT_EQ(request->valueForHeader(name), "1, 2");
    EXPECT_EQ(request->headers().find(name)->second, "1, 2");
  }
  EXPECT_EQ((*request)["host"], "h");
  EXPECT_EQ(request->valueForHeader("None"), std::nullopt);
  EXPECT_EQ(request->GETParameters().size(), 1U);
  EXPECT_EQ(request->GETParameters().find("y")->second, "A+");
  EXPECT_THAT(request->description(),
              testing::MatchesRegex("<VELRequest: 0x[0-9a-f]+> \\{ method=\"PATCH\", "
                                    "URL=\"/a%20b/\\?x=1&y=%41\\+&x\" \\}"));
}

TEST(Request, WhatIsSetCountsInsteadOfWhatWasReceived) {
  const auto request = received({"GET /old?q=1 HTTP/1.1\r\n", "Content-Type: text/plain\r\n"});
  request->setURL(VELURL::URLWithString("HTTPS://host/new/"));
  request->setMethod("PUT");
  request->setPOSTParameters(VELDictionary());
  request->setTextCheckingResult(VELTextCheckingResult(VELTextRange{0, 4}));
  EXPECT_EQ(request->path(), "/new");
  EXPECT_TRUE(request->isSecure());
  EXPECT_EQ(request->method(), "PUT");
  EXPECT_TRUE(request->POSTParameters()->empty());
  EXPECT_EQ(request->textCheckingResult()->range().length, 4U);
  EXPECT_EQ(request->GETParameters().find("q")->second, "1");
  request->setGETParameters(VELDictionary());
  EXPECT_TRUE(request->GETParameters().empty());
  request->setURL(std::nullopt);
  EXPECT_EQ(request->URL(), std::nullopt);
  EXPECT_EQ(request->path(), "");
  EXPECT_FALSE(request->isSecure());
}

TEST(Request, LooksUpHeadersThatWereSetInUpperCase) {
  VELRequest request;
  VELDictionary exact;
  exact["CONTENT-TYPE"] = "a/b";
  exact["Mixed"] = "1";
  request.setHeaders(exact);
  EXPECT_EQ(request.valueForHeader("Content-Type"), "a/b");
  EXPECT_EQ(request.contentType(), "a/b");
  EXPECT_EQ(request.valueForHeader("Mixed"), std::nullopt);
  VELDictionary folding(VELKeyOrder{true});
  folding["Mixed"] = "2";
  request.setHeaders(folding);
  EXPECT_EQ(request.valueForHeader("mixed"), "2");
}

TEST(Request, HasEmptyPOSTParametersForFormsAndNoneForTheRest) {
  const std::pair<std::string, bool> cases[] = {
      {"Other: 1\r\n", true},
      {"Content-Type:\r\n", true},
      {"Content-Type: application/X-WWW-form-urlencoded\r\n", true},
      {"Content-Type: application/x-www-form-urlencoded; charset=utf-8\r\n", false},
      {"Content-Type: multipart/form-data\r\n", false},
      {"Content-Type: application/json\r\n", false},
  };
  for (const auto& [line, is_form] : cases) {
    const auto request = received({"POST / HTTP/1.1\r\n", line});
    request->setBodyData(VELData(std::string("a=1")));
    EXPECT_EQ(request->POSTParameters().has_value(), is_form) << line;
    EXPECT_TRUE(request->POSTParameters().value_or(VELDictionary()).empty()) << line;
  }
}

TEST(Request, ReadsItsBodyFromMemoryOrFile) {
  const test::TemporaryDirectory directory;
  std::ofstream(directory.path("body"), std::ios::binary) << "from a file";
  VELRequest request;
  request.setBodyFileURL(VELURL::fileURLWithPath(directory.path("body")));
  EXPECT_EQ(request.body()->string(), "from a file");
  EXPECT_EQ(request.bodyData(), std::nullopt);
  request.setBodyFileURL(VELURL::fileURLWithPath(directory.path("missing")));
  EXPECT_EQ(request.body(), std::nullopt);
  request.setBodyData(VELData(std::string("in memory")));
  EXPECT_EQ(request.body()->string(), "in memory");
}

// A handler's thread may still read a request while its connection's queue does.
TEST(Request, IsReadOnSeveralThreadsAtOnce) {
  const auto request = received({"GET /a?b=1 HTTP/1.1\r\n", "Host: h\r\n"});
  std::vector<VELUUID> identifiers(4);
  std::vector<std::thread> threads;
  for (VELUUID& identifier : identifiers) {
    threads.emplace_back([&request, &identifier] {
      identifier = request->identifier();
      EXPECT_EQ(request->headers().size(), 1U);
      EXPECT_EQ(request->GETParameters().size(), 1U);
      EXPECT_EQ(request->URL()->path(), request->path());
      EXPECT_EQ(request->valueForHeader("host"), "h");
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const VELUUID& identifier : identifiers) EXPECT_EQ(identifier, request->identifier());
}

}  // namespace
}  // namespace vel
