// Parsing the head of a request, and writing that of an answer.
#include <benchmark/benchmark.h>

#include <string>
#include <string_view>

#include "http/head_parser.h"
#include "http/head_serialiser.h"
#include "http/message_head.h"
#include "sample_heads.h"

namespace vel::bench {
namespace {

// One head after the other into the same block, as on a connection that stays open.
void parseHead(benchmark::State& state, std::string_view text) {
  HeadParser parser;
  MessageHead head;
  for (auto _ : state) {
    head.clear();
    size_t consumed = 0;
    if (parser.appendData(text, &head, &consumed) != HeadProgress::kComplete) {
      state.SkipWithError("the head was not complete");
      break;
    }
    benchmark::DoNotOptimize(head.fieldCount());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK_CAPTURE(parseHead, small, kSmallHead);
BENCHMARK_CAPTURE(parseHead, browser, kBrowserHead);

void writeAnswerHead(benchmark::State& state) {
  const std::vector<VELHeaderField> fields = {{"Content-Type", "text/plain; charset=utf-8"}};
  std::string out;
  for (auto _ : state) {
    out.clear();
    ResponseHeadBuilder head(200);
    head.setContentLength(13);
    head.setOwnField("Date", "Sat, 01 Jan 2022 00:00:00 GMT");
    head.setOwnField("Accept-Ranges", "bytes");
    head.setFields(fields);
    head.appendTo(&out);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(out.size()));
}
BENCHMARK(writeAnswerHead);

// A head that was received and changed, as a proxy passes it on.
void writeChangedHead(benchmark::State& state) {
  HeadParser parser;
  MessageHead head;
  size_t consumed = 0;
  parser.appendData(kBrowserHead, &head, &consumed);
  head.setField("close", "Connection");
  for (auto _ : state) {
    std::string out = serialised(head);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(writeChangedHead);

}  // namespace
}  // namespace vel::bench
