// Tests of the configuration: edits, what they leave alone, and misuse.
#include "corvane/configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <utility>

#include "corvane/block_route.h"
#include "corvane/error.h"
#include "http/configuration_snapshot.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::shared_ptr<VELRoute> makeRoute() { return std::make_shared<VELBlockRoute>("/", false); }

template <typename Call>
std::string nameOfException(const Call& call) {
  try {
    call();
  } catch (const VELException& exception) {
    return exception.name();
  }
  return "nothing raised";
}

TEST(Configuration, EditsListsInOrder) {
  VELConfiguration configuration;
  const auto a = makeRoute();
  const auto b = makeRoute();
  const auto c = makeRoute();
  configuration.addRoute(a);
  configuration.insertRoute(b, 0);
  const auto before = configuration.routes();
  configuration.insertRoute(c, 2);
  configuration.addRoute(b);
  EXPECT_THAT(configuration.routes(), ElementsAre(b, a, c, b));
  EXPECT_THAT(before, ElementsAre(b, a));
  configuration.removeRoute(b);
  configuration.removeRoute(nullptr);
  EXPECT_THAT(configuration.routes(), ElementsAre(a, c));
  configuration.removeRouteAtIndex(0);
  EXPECT_THAT(configuration.routes(), ElementsAre(c));
  configuration.setRoutes({b, a});
  EXPECT_THAT(configuration.routes(), ElementsAre(b, a));

  const auto first = std::make_shared<VELMiddleware>();
  const auto second = std::make_shared<VELMiddleware>();
  configuration.addMiddleware(second);
  configuration.insertMiddleware(first, 0);
  configuration.addMiddleware(second);
  EXPECT_THAT(configuration.middlewares(), ElementsAre(first, second, second));
  configuration.removeMiddleware(second);
  configuration.addMiddleware(second);
  configuration.removeMiddlewareAtIndex(0);
  EXPECT_THAT(configuration.middlewares(), ElementsAre(second));
}

TEST(Configuration, StaysAsItWasWhenAnEditRaises) {
  VELConfiguration configuration;
  const auto route = makeRoute();
  configuration.addRoute(route);
  const std::pair<std::function<void()>, const char*> edits[] = {
      {[&] { configuration.insertRoute(makeRoute(), 2); }, VELRangeException},
      {[&] { configuration.removeRouteAtIndex(1); }, VELRangeException},
      {[&] { configuration.removeMiddlewareAtIndex(0); }, VELRangeException},
      {[&] { configuration.addRoute(nullptr); }, VELInvalidArgumentException},
      {[&] { configuration.insertRoute(nullptr, 0); }, VELInvalidArgumentException},
      {[&] { configuration.setRoutes({nullptr}); }, VELInvalidArgumentException},
      {[&] { configuration.addMiddleware(nullptr); }, VELInvalidArgumentException},
  };
  for (const auto& [edit, exception] : edits) EXPECT_EQ(nameOfException(edit), exception);
  EXPECT_THAT(configuration.routes(), ElementsAre(route));
  // The lock was released: another thread can edit.
  std::thread([&] { configuration.addRoute(route); }).join();
  EXPECT_THAT(configuration.routes(), ElementsAre(route, route));
}

TEST(Configuration, KeepsVariablesApartFromProperties) {
  VELConfiguration configuration;
  configuration.setValueForVariable(std::string("staging"), "environment");
  configuration.setValueForVariable(7, "keepAliveInterval");
  EXPECT_EQ(std::any_cast<std::string>(configuration["environment"]), "staging");
  EXPECT_EQ(std::any_cast<int>(configuration.valueForVariable("keepAliveInterval")), 7);
  EXPECT_EQ(configuration.keepAliveInterval(), 15.0);

  configuration.setObjectForKeyedSubscript(2.5, "keepAliveInterval");
  EXPECT_EQ(configuration.keepAliveInterval(), 2.5);
  EXPECT_EQ(std::any_cast<int>(configuration["keepAliveInterval"]), 7);

  configuration.setValueForVariable(std::any(), "environment");
  EXPECT_FALSE(configuration["environment"].has_value());
  EXPECT_FALSE(configuration["never set"].has_value());
  EXPECT_THAT(configuration.variables(), SizeIs(1));
}

TEST(Configuration, SetsPropertiesByName) {
  VELConfiguration configuration;
  const auto route = makeRoute();
  const auto middleware = std::make_shared<VELMiddleware>();
  VELLimits limits;
  limits.headLines = 7;
  configuration.setObjectForKeyedSubscript(VELConfiguration::Routes{route}, "routes");
  configuration.setObjectForKeyedSubscript(VELConfiguration::Middlewares{middleware},
                                           "middlewares");
  configuration.setObjectForKeyedSubscript(VELConfiguration::Variables{{"a", 1}}, "variables");
  configuration.setObjectForKeyedSubscript(VELCertificateList{nullptr}, "SSLCertificates");
  configuration.setObjectForKeyedSubscript(5, "keepAliveInterval");
  configuration.setObjectForKeyedSubscript(limits, "limits");
  configuration.setObjectForKeyedSubscript(VELProfile::kStandard, "profile");
  EXPECT_THAT(configuration.routes(), ElementsAre(route));
  EXPECT_THAT(configuration.middlewares(), ElementsAre(middleware));
  EXPECT_THAT(configuration.variables(), SizeIs(1));
  EXPECT_THAT(configuration.SSLCertificates(), SizeIs(1));
  EXPECT_EQ(configuration.keepAliveInterval(), 5.0);
  EXPECT_EQ(configuration.limits().headLines, 7U);
  EXPECT_EQ(configuration.profile(), VELProfile::kStandard);

  for (const char* const key : {"routes", "middlewares", "variables", "SSLCertificates"}) {
    configuration.setObjectForKeyedSubscript(std::any(), key);
  }
  EXPECT_THAT(configuration.routes(), IsEmpty());
  EXPECT_THAT(configuration.variables(), IsEmpty());

  const auto setting = [&](std::any value, const char* key) {
    return nameOfException([&] { configuration.setObjectForKeyedSubscript(value, key); });
  };
  EXPECT_EQ(setting(1, "environment"), VELUnknownKeyException);
  EXPECT_EQ(setting(1, ""), VELUnknownKeyException);
  EXPECT_EQ(setting(1, "routes"), VELInvalidArgumentException);
  EXPECT_EQ(setting(std::string("5"), "keepAliveInterval"), VELInvalidArgumentException);
  EXPECT_EQ(setting(std::any(), "keepAliveInterval"), VELInvalidArgumentException);
  EXPECT_EQ(configuration.keepAliveInterval(), 5.0);
}

TEST(Configuration, IsCopiedWithSharedObjectsAndListsOfItsOwn) {
  VELConfiguration configuration;
  const auto route = makeRoute();
  configuration.addRoute(route);
  configuration.setKeepAliveInterval(3);
  configuration.setValueForVariable(1, "a");
  const auto copy = configuration.copy();
  configuration.addRoute(makeRoute());
  copy->setKeepAliveInterval(4);
  EXPECT_THAT(copy->routes(), ElementsAre(route));
  EXPECT_THAT(copy->variables(), SizeIs(1));
  EXPECT_EQ(configuration.keepAliveInterval(), 3.0);
}

TEST(Configuration, SharesOneSnapshotBetweenTwoEdits) {
  VELConfiguration configuration;
  configuration.addRoute(makeRoute());
  const auto snapshot = configuration.snapshot();
  EXPECT_EQ(configuration.snapshot(), snapshot);
  EXPECT_EQ(configuration.copy()->snapshot(), snapshot);
  configuration.addRoute(makeRoute());
  EXPECT_NE(configuration.snapshot(), snapshot);
  EXPECT_THAT(snapshot->routes, SizeIs(1));
}

TEST(Configuration, LosesNoEditOfSeveralThreads) {
  constexpr int kThreads = 4;
  constexpr int kEdits = 200;
  VELConfiguration configuration;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&configuration, thread] {
      const auto added = makeRoute();
      for (int i = 0; i < kEdits; ++i) {
        configuration.insertRoute(added, 0);
        configuration.setValueForVariable(i, std::to_string(thread));
        for (const auto& route : configuration.routes()) EXPECT_TRUE(route);
        EXPECT_THROW(configuration.removeRouteAtIndex(SIZE_MAX), VELException);
        if (i % 2 == 0) configuration.removeRoute(added);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(configuration.routes(), SizeIs(kThreads));
  for (int thread = 0; thread < kThreads; ++thread) {
    EXPECT_EQ(std::any_cast<int>(configuration[std::to_string(thread)]), kEdits - 1);
  }
}

}  // namespace
