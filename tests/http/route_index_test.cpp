#include "http/route_index.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace vel {
namespace {

using Routes = RouteIndex::Routes;

std::shared_ptr<VELRoute> patternRoute(std::string_view pattern, bool ignoresCase = false) {
  return std::make_shared<VELRoute>(VELRegularExpression::regularExpressionWithPattern(
      pattern, ignoresCase ? VELRegularExpressionOptions::kCaseInsensitive
                           : VELRegularExpressionOptions::kNone));
}

std::shared_ptr<VELRoute> pathRoute(std::string_view path, bool ignoresCase = false) {
  return std::make_shared<VELRoute>(path, ignoresCase);
}

// What the index has to agree with: every expression in order.
VELRoute* firstByTryingAll(const Routes& routes, std::string_view path,
                           VELTextCheckingResult* result) {
  for (const auto& route : routes) {
    if (const auto match = route->regularExpression()->firstMatchInString(path)) {
      *result = *match;
      return route.get();
    }
  }
  return nullptr;
}

VELRoute* find(const RouteIndex& index, const Routes& routes, std::string_view path) {
  VELTextCheckingResult result;
  return index.firstMatch(routes, path, &result);
}

void expectSame(const Routes& routes, const RouteIndex& index, std::string_view path) {
  VELTextCheckingResult expected;
  VELTextCheckingResult found;
  VELRoute* const route = firstByTryingAll(routes, path, &expected);
  ASSERT_EQ(index.firstMatch(routes, path, &found), route) << path;
  if (route == nullptr) return;
  EXPECT_EQ(found.range(), expected.range()) << path;
  EXPECT_EQ(found.numberOfRanges(), expected.numberOfRanges()) << path;
}

TEST(RouteIndex, FindsWhatTryingAllRoutesInOrderFinds) {
  const Routes routes{
      pathRoute("/files/private"),
      patternRoute("^/users/([0-9]+)$"),
      pathRoute("/users"),
      pathRoute("/Docs", true),
      pathRoute("/docs/api"),
      patternRoute("archive"),
      pathRoute("/files"),
      pathRoute("/files/public"),
      pathRoute("/\xC3\xA9t\xC3\xA9"),
      pathRoute("/K", true),
      patternRoute("^$"),
  };
  const RouteIndex index;
  for (const std::string path :
       {"/", "", "/files/", "/files/private/x", "/files/public", "/filesystem", "/file", "/users",
        "/users/42", "/users/42x", "/docs", "/DOCS/api", "/my/archive", "/users/archive",
        "/\xC3\xA9t\xC3\xA9/x", "/\xC3", "/k", "/\xE2\x84\xAA", "*"}) {
    expectSame(routes, index, path);
  }
}

TEST(RouteIndex, AgreesWithTryingAllOnMadeUpRoutes) {
  std::mt19937 random(2024);
  const auto text = [&random] {
    std::string made = "/";
    for (auto length = random() % 6; length > 0; --length) made += "abAB/"[random() % 5];
    return made;
  };
  for (int round = 0; round < 200; ++round) {
    Routes routes;
    for (auto count = random() % 12; count > 0; --count) {
      const std::string made = text();
      routes.push_back(random() % 5 == 0 ? patternRoute("^" + made + "$")
                                         : pathRoute(made, random() % 3 == 0));
    }
    const RouteIndex index;
    for (int i = 0; i < 20; ++i) expectSame(routes, index, text());
  }
}

TEST(RouteIndex, NoticesAChangedExpression) {
  const Routes routes{pathRoute("/old"), pathRoute("/other")};
  const RouteIndex index;
  EXPECT_EQ(find(index, routes, "/old"), routes[0].get());
  routes[0]->setRegularExpression(VELRegularExpression::regularExpressionWithPattern("^/new"));
  EXPECT_EQ(find(index, routes, "/old"), nullptr);
  EXPECT_EQ(find(index, routes, "/new"), routes[0].get());
}

TEST(RouteIndex, IsMadeOnceForThreadsThatAskTogether) {
  Routes routes;
  for (int i = 0; i < 300; ++i) routes.push_back(pathRoute("/route" + std::to_string(i) + "/"));
  const RouteIndex index;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (size_t i = 0; i < routes.size(); ++i) {
        EXPECT_EQ(find(index, routes, "/route" + std::to_string(i) + "/x"), routes[i].get());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace vel
