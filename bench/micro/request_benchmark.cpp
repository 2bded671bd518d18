// What a route asks a request for: the values of header fields.
#include <benchmark/benchmark.h>

#include <memory>

#include "http/head_parser.h"
#include "http/request_access.h"
#include "sample_heads.h"

namespace vel::bench {
namespace {

std::shared_ptr<VELRequest> browserRequest() {
  auto request = std::make_shared<ReceivedRequest>();
  size_t consumed = 0;
  HeadParser().appendData(kBrowserHead, &request->head(), &consumed);
  return request;
}

void findHeader(benchmark::State& state, const char* name) {
  const auto request = browserRequest();
  for (auto _ : state) benchmark::DoNotOptimize(request->valueForHeader(name));
}
// A field that the head indexes, the last of those that it does not, and none.
BENCHMARK_CAPTURE(findHeader, known, "Connection");
BENCHMARK_CAPTURE(findHeader, last, "Sec-Fetch-Dest");
BENCHMARK_CAPTURE(findHeader, absent, "X-Absent");

// The first question for all headers makes the dictionary.
void makeHeaders(benchmark::State& state) {
  for (auto _ : state) {
    const auto request = browserRequest();
    benchmark::DoNotOptimize(request->headers().size());
  }
}
BENCHMARK(makeHeaders);

}  // namespace
}  // namespace vel::bench
