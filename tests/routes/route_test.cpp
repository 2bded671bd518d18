// Tests of the route base, the block route and a middleware's defaults.
#include "corvane/route.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvane/block_route.h"
#include "corvane/error.h"
#include "corvane/middleware.h"
#include "corvane/responses.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::ThrowsMessage;

struct Unfinished : VELRoute {
  using VELRoute::VELRoute;
};

TEST(Route, MatchesWhatBeginsWithItsPath) {
  const struct {
    std::string_view path;
    bool caseInsensitive;
    std::string_view requested;
    bool matches;
  } cases[] = {
      {"/files", false, "/files", true},       {"/files", false, "/files/a.txt", true},
      {"/files", false, "/filesystem", true},  {"/files", false, "/a/files", false},
      {"/files", false, "/file", false},       {"docs", false, "/docs", true},
      {"docs", false, "docs", false},          {"", false, "/anything", true},
      {"/a.b", false, "/a.b", true},           {"/a.b", false, "/axb", false},
      {"/a+b", false, "/a+b", true},           {"/a+b", false, "/aab", false},
      {"/\\Q$x\\E", false, "/\\Q$x\\E", true}, {"/Docs", true, "/docs", true},
      {"/Docs", false, "/docs", false},        {"/a\nb", false, "/a\nbc", true},
  };
  for (const auto& [path, caseInsensitive, requested, matches] : cases) {
    const VELBlockRoute route(path, caseInsensitive);
    EXPECT_EQ(route.regularExpression()->firstMatchInString(requested).has_value(), matches)
        << path << " for " << requested;
  }
}

TEST(Route, RaisesWhatItIsDocumentedToRaise) {
  const auto raisesForItsInitialiser = ThrowsMessage<VELException>(
      "NSInvalidArgumentException: Must be initialized with -initWithRegularExpression:");
  EXPECT_THAT([] { VELRoute(); }, raisesForItsInitialiser);
  EXPECT_THAT([] { Unfinished(); }, raisesForItsInitialiser);
  EXPECT_THAT(
      [] { Unfinished("/", false).evaluateWithRequest(nullptr, [](const auto&, const auto&) {}); },
      ThrowsMessage<VELException>("NSInvalidArgumentException: evaluateWithRequest:"
                                  "responseHandler: must be overridden by subclasses."));
}

TEST(Route, StoresMethodsInUpperCaseAndNoOthers) {
  VELBlockRoute route("/", false);
  EXPECT_THAT(*route.allowedHTTPMethods(), ElementsAre("HEAD", "GET"));
  const VELMethodList before = route.allowedHTTPMethods();
  route.setAllowedHTTPMethods({"get", "Post", "get"});
  EXPECT_THAT(*route.allowedHTTPMethods(), ElementsAre("GET", "POST", "GET"));
  EXPECT_THAT(*before, ElementsAre("HEAD", "GET"));
  route.setAllowedHTTPMethods({});
  EXPECT_THAT(*route.allowedHTTPMethods(), IsEmpty());
}

TEST(Route, IsDescribedByClassAddressAndName) {
  Unfinished route("/", false);
  EXPECT_THAT(route.description(), MatchesRegex("<.*Unfinished: 0x[0-9a-f]+>"));
  route.setName("api");
  EXPECT_THAT(route.description(), MatchesRegex("<.*Unfinished: 0x[0-9a-f]+ : api>"));
}

TEST(BlockRoute, AnswersWithItsHandlerOrNotFound) {
  const auto route = std::make_shared<VELBlockRoute>("/", false);
  const auto answerOf = [&route](const std::shared_ptr<VELRequest>& request) {
    std::shared_ptr<VELResponse> answer;
    route->evaluateWithRequest(
        request, [&](std::shared_ptr<VELResponse> response, const std::optional<VELError>& error) {
          EXPECT_FALSE(error);
          answer = std::move(response);
        });
    return answer;
  };
  EXPECT_FALSE(route->handler());
  EXPECT_TRUE(std::dynamic_pointer_cast<VELNotFoundResponse>(answerOf(nullptr)));

  const auto request = std::make_shared<VELRequest>();
  const auto response = std::make_shared<VELResponse>();
  route->setHandler([&](VELRoute& called, const std::shared_ptr<VELRequest>& received,
                        const VELResponseHandler& respond) {
    EXPECT_EQ(&called, route.get());
    EXPECT_EQ(received, request);
    // A handler may replace itself while it runs.
    route->setHandler(nullptr);
    respond(response);
  });
  EXPECT_TRUE(route->handler());
  EXPECT_EQ(answerOf(request), response);
  EXPECT_FALSE(route->handler());
}

TEST(Middleware, ChangesNothingByDefault) {
  VELMiddleware middleware;
  VELRequest request;
  VELBlockRoute route("/", false);
  const auto response = std::make_shared<VELResponse>();
  EXPECT_FALSE(middleware.evaluateRequest(request, route));
  EXPECT_EQ(middleware.evaluateResponse(response, request), response);
  EXPECT_FALSE(middleware.evaluateError(VELError("Domain", 1), request));
}

}  // namespace
