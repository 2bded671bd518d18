// The load: one thread that keeps a fixed number of connections busy with a fixed number of
// requests, checks every answer, and tells bench/run when the counted part begins and ends. It
// measures nothing itself: what counts is the server's processor time, read by bench/run.
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "load.h"
#include "load_websocket.h"

namespace bench {
namespace {

void raiseDescriptorLimit(std::size_t needed) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) failSystem("getrlimit");
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) failSystem("setrlimit");
  if (limit.rlim_cur < needed + 16) {
    fail("the descriptor limit of " + std::to_string(limit.rlim_cur) + " is too low");
  }
}

// Says where the load stands and goes on when bench/run has read the server's account.
void report(const LoadOptions& options, const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
  std::string answer;
  if (options.waits && !std::getline(std::cin, answer)) std::exit(1);
}

std::unique_ptr<LoadLoop> makeLoad(const LoadOptions& options) {
  if (options.broadcast) return std::make_unique<BroadcastLoad>(options);
  if (options.webSocket) return std::make_unique<WebSocketLoad>(options);
  return std::make_unique<Load>(options);
}

int runLoad(const LoadOptions& options) {
  raiseDescriptorLimit(options.connections);
  const auto load = makeLoad(options);
  if (options.opensFirst) load->openAll();
  if (options.warmup > 0) load->run(options.warmup, 0, options.connections);
  report(options, "ready");
  if (options.idle) {
    load->openAll();
  } else {
    load->run(options.requests, 0, options.connections);
  }
  const std::uint64_t requests = options.idle ? options.connections : options.requests;
  report(options, "done requests=" + std::to_string(requests) + " errors=" +
                      std::to_string(load->errors()) + " bytes=" + std::to_string(load->bytes()));
  return load->errors() == 0 ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // OpenSSL writes without a flag against it
  return bench::runLoad(bench::readOptions(argc, argv));
}
