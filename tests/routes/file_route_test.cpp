// The file route: which file a request means, and what is suggested for it.
#include "corvane/file_route.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "corvane/responses.h"
#include "support/temporary_directory.h"

namespace vel::test {
namespace {

// Tells what was decided, and answers with something else.
struct Reviewer : VELFileRouteDelegate {
  void fileRouteDecideResponseForFileAtURL(VELFileRoute&, const VELURL& fileURL,
                                           std::shared_ptr<VELRequest>,
                                           std::shared_ptr<VELResponse> suggestedResponse,
                                           VELResponseHandler responseHandler) override {
    seen = fileURL.filePath() + " " + std::to_string(suggestedResponse->status());
    responseHandler(VELResponse::responseWithData(VELData(), 299));
  }
  std::string seen;
};

class FileRoute : public testing::Test {
 protected:
  FileRoute() {
    write("top.html", "top");
    write("css/a.css", "a{}");
    write("docs/index.html", "index");
    write("empty/.keep", "");
    write("many/index.htm", "htm");
    write("nested/index.html/x", "");
    write("bytes \xff%41?#.txt", "bytes");
  }

  void write(const std::string& name, const std::string& content) const {
    const std::filesystem::path path = directory_.path(name);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << content;
  }
  void setMode(const std::string& name, mode_t mode) const {
    ASSERT_EQ(::chmod(directory_.path(name).c_str(), mode), 0);
  }

  /// Status and body of the answer to a request for `target`.
  static std::string answer(VELFileRoute& route, const std::string& target,
                            const std::string& method = "GET") {
    auto request = std::make_shared<VELRequest>();
    request->setMethod(method);
    request->setURL(VELURL::URLWithRequestTarget(target));
    request->setTextCheckingResult(route.regularExpression()->firstMatchInString(request->path()));
    std::string text = "not answered";
    route.evaluateWithRequest(request, [&](const std::shared_ptr<VELResponse>& response,
                                           const std::optional<VELError>& error) {
      EXPECT_FALSE(error.has_value());
      text = std::to_string(response->status());
      if (response->contentLength() > 0) text += " " + response->readDataOfLength(1000).string();
    });
    return text;
  }
  std::string answer(const std::string& target) { return answer(*route_, target); }

  const TemporaryDirectory directory_;
  const VELURL root_ = VELURL::fileURLWithPath(directory_.path());
  const std::shared_ptr<VELFileRoute> route_ = VELFileRoute::routeWithPath("/static", root_);
};

TEST_F(FileRoute, MapsWhatFollowsTheMatch) {
  write("foo", "foo");
  const struct {
    std::string pattern;
    std::string target;
    std::string answer;
  } cases[] = {
      {"^/static", "/static/css/a.css", "200 a{}"},
      {"^/static", "/staticfoo", "200 foo"},
      {"^/static", "/static//foo", "200 foo"},
      {"^/static", "/static/docs", "200 index"},
      {"^/static", "/static/docs/", "200 index"},
      {"^/static", "/static/css/../docs/./index.html", "200 index"},
      {"^/static", "/static/css%2Fa.css", "200 a{}"},
      {"^/static", "/static/bytes%20%ff%2541%3F%23.txt", "200 bytes"},
      {"^/static", "/static", "403"},
      {"^/static", "/static/empty", "403"},
      {"^/static", "/static/nested", "200"},
      {"^/static", "/static/none", "404"},
      {"^/static", "/static/top.html/x", "404"},
      {"^/static", "/static/../x", "404"},
      {"^/static", "/static/%2e%2e/%2e%2e/etc/passwd", "404"},
      {"^/static", "/static/top.html%00", "404"},
      {"^/", "/top.html", "200 top"},
      {"^/v[0-9]+", "/v12/top.html", "200 top"},
      // A match elsewhere is a mere condition.
      {"[.]css$", "/css/a.css", "200 a{}"},
  };
  for (const auto& [pattern, target, expected] : cases) {
    VELFileRoute route(VELRegularExpression::regularExpressionWithPattern(pattern));
    route.setRootURL(root_);
    EXPECT_EQ(answer(route, target), expected) << pattern << " " << target;
  }
}

TEST_F(FileRoute, AnswersOnlyGetAndHeadAndNothingWithoutARoot) {
  route_->setAllowedHTTPMethods({"GET", "POST"});
  EXPECT_EQ(answer(*route_, "/static/top.html", "POST"), "405");
  EXPECT_EQ(answer(*route_, "/static/top.html", "get"), "405");
  EXPECT_EQ(answer(*route_, "/static/top.html", "HEAD"), "200 top");
  for (const char* url : {"http://localhost/", "file:///no/such", ""}) {
    route_->setRootURL(VELURL::URLWithString(url));
    EXPECT_EQ(answer("/static/top.html"), "404") << url;
  }
}

TEST_F(FileRoute, TakesTheFirstReadableIndex) {
  EXPECT_EQ(answer("/static/many"), "403");
  route_->setDirectoryIndexNames({"index.html", "index.htm"});
  EXPECT_EQ(answer("/static/many"), "200 htm");
  write("many/index.html", "html");
  EXPECT_EQ(answer("/static/many"), "200 html");
  route_->setDirectoryIndexNames({"../../x", "../css/a.css"});
  EXPECT_EQ(answer("/static/many"), "200 a{}");
  route_->setDirectoryIndexNames({});
  EXPECT_EQ(answer("/static/many"), "403");
}

TEST_F(FileRoute, WantsOneOfTheAllowedPermissions) {
  const struct {
    mode_t mode;
    uint16_t mask;
    const char* answer;
  } cases[] = {
      {0600, 0444, "200 top"}, {0400, 0444, "200 top"}, {0404, 0004, "200 top"},
      {0600, 0044, "403"},     {0600, 0, "403"},        {0644, 0022, "403"},
  };
  EXPECT_EQ(route_->allowedFilePermissions(), 0444);
  for (const auto& [mode, mask, expected] : cases) {
    setMode("top.html", mode);
    route_->setAllowedFilePermissions(mask);
    EXPECT_EQ(answer("/static/top.html"), expected) << std::oct << mode << " " << mask;
  }
  ASSERT_EQ(::mkfifo(directory_.path("pipe").c_str(), 0644), 0);
  EXPECT_EQ(answer("/static/pipe"), "403");
  EXPECT_EQ(answer("/static/none"), "404");
  route_->setAllowedFilePermissions(0444);
  EXPECT_EQ(answer("/static/pipe"), "404");
}

TEST_F(FileRoute, HasItsDelegateReviewWhatIsThere) {
  const auto reviewer = std::make_shared<Reviewer>();
  route_->setDelegate(reviewer);
  const struct {
    std::string target;
    std::string location;
    std::string suggested;
  } cases[] = {
      {"/static/css/a.css", "/css/a.css", "200"},
      {"/static/docs", "/docs/index.html", "200"},
      {"/static/empty", "/empty", "403"},
      {"/static", "", "403"},
  };
  for (const auto& [target, location, suggested] : cases) {
    EXPECT_EQ(answer(target), "299") << target;
    EXPECT_EQ(reviewer->seen, directory_.path() + location + " " + suggested);
  }
  reviewer->seen.clear();
  EXPECT_EQ(answer("/static/none"), "404");
  EXPECT_EQ(answer(*route_, "/static/css/a.css", "PUT"), "405");
  EXPECT_EQ(reviewer->seen, "");
  route_->setDelegate(std::make_shared<Reviewer>());  // gone already
  EXPECT_EQ(answer("/static/css/a.css"), "200 a{}");
}

// A subclass may decide for itself, and send requests elsewhere in the tree, but not out of it.
TEST_F(FileRoute, KeepsSubclassesInItsTree) {
  struct Redirected : VELFileRoute {
    using VELFileRoute::VELFileRoute;
    void decideResponseForFileAtURL(const VELURL& fileURL, std::shared_ptr<VELRequest> request,
                                    VELResponseHandler responseHandler) override {
      seen = fileURL.filePath();
      VELFileRoute::decideResponseForFileAtURL(VELURL::fileURLWithPath(target), request,
                                               std::move(responseHandler));
    }
    std::string target;
    std::string seen;
  };
  Redirected route("/", false);
  route.setRootURL(root_);
  const struct {
    std::string target;
    std::string answer;
  } cases[] = {
      {directory_.path("docs"), "200 index"},
      {directory_.path(), "403"},
      {directory_.path() + "x/top.html", "404"},
      {directory_.path("../../../etc/passwd"), "404"},
      {"/etc/passwd", "404"},
  };
  for (const auto& [target, expected] : cases) {
    route.target = target;
    EXPECT_EQ(answer(route, "/top.html"), expected) << target;
    EXPECT_EQ(route.seen, directory_.path("top.html"));
  }
  EXPECT_EQ(answer(route, "/none"), "404");
}

// What cannot be established counts as insensitive.
TEST_F(FileRoute, MatchesInAnyLetterCaseUnlessNamesAreKnownToDiffer) {
  const auto matches = [](const VELURL& root) {
    const auto route = VELFileRoute::routeWithPath("/Docs", root);
    EXPECT_EQ(route->rootURL(), root);
    return route->regularExpression()->firstMatchInString("/docs").has_value();
  };
  EXPECT_TRUE(matches(VELURL::fileURLWithPath("/no/such")));
  EXPECT_TRUE(matches(*VELURL::URLWithString("http://localhost/")));
}

}  // namespace
}  // namespace vel::test
