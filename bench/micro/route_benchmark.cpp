// Finding the route of a path in short and long lists. The last route is the one that matches.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "http/route_index.h"

namespace vel::bench {
namespace {

std::string prefix(int64_t number) {
  char text[32];
  std::snprintf(text, sizeof text, "/route%04ld/", static_cast<long>(number));
  return text;
}

void findRoute(benchmark::State& state, bool isPattern) {
  RouteIndex::Routes routes;
  for (int64_t number = 1; number <= state.range(0); ++number) {
    routes.push_back(
        isPattern ? std::make_shared<VELRoute>(VELRegularExpression::regularExpressionWithPattern(
                        "^" + prefix(number) + "([0-9]+)$"))
                  : std::make_shared<VELRoute>(prefix(number), false));
  }
  const std::string path = prefix(state.range(0)) + "42";
  const RouteIndex index;
  for (auto _ : state) {
    VELTextCheckingResult result;
    if (index.firstMatch(routes, path, &result) != routes.back().get()) {
      state.SkipWithError("another route was found");
      break;
    }
  }
}
BENCHMARK_CAPTURE(findRoute, literal, false)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(findRoute, pattern, true)->RangeMultiplier(10)->Range(1, 1000);

}  // namespace
}  // namespace vel::bench
