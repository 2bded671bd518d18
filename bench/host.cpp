// A host with many routes or middlewares, for what the program's command line cannot say: ROUTES
// routes by literal prefixes or by patterns, of which the last one is asked for, and MIDDLEWARES
// middlewares that do nothing: by operations of their own, by those that they inherit, or as
// authentication does where a route is open.
#include <corvane/authentication.h>
#include <corvane/block_route.h>
#include <corvane/data.h>
#include <corvane/response.h>
#include <corvane/server.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace {

void answer(VELRoute&, const std::shared_ptr<VELRequest>&, const VELResponseHandler& respond) {
  static const VELData text(std::string("Hello, world!"));
  respond(VELResponse::responseWithData(text, 200, "text/plain; charset=utf-8"));
}

std::shared_ptr<VELBlockRoute> makeRoute(unsigned long number, bool isPattern) {
  char path[32];
  std::snprintf(path, sizeof path, "/route%04lu/", number);
  if (!isPattern) return std::make_shared<VELBlockRoute>(path, false);
  return std::make_shared<VELBlockRoute>(
      VELRegularExpression::regularExpressionWithPattern("^" + std::string(path) + "([0-9]+)$"));
}

/// Does with operations of its own what the base does anyway.
class Idle : public VELMiddleware {
 public:
  std::shared_ptr<VELResponse> evaluateRequest(VELRequest&, VELRoute&) override { return nullptr; }
  std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse> response,
                                                VELRequest&) override {
    return response;
  }
};

std::shared_ptr<VELMiddleware> makeMiddleware(std::string_view kind) {
  if (kind == "own") return std::make_shared<Idle>();
  if (kind == "authentication") return std::make_shared<VELAuthenticationMiddleware>();
  return std::make_shared<VELMiddleware>();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    std::fprintf(
        stderr,
        "usage: bench_host literal|pattern ROUTES [own|inherited|authentication MIDDLEWARES]\n");
    return 2;
  }
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  const bool isPattern = std::string_view(argv[1]) == "pattern";
  auto configuration = std::make_shared<VELConfiguration>();
  const unsigned long count = std::strtoul(argv[2], nullptr, 10);
  for (unsigned long number = 1; number <= count; ++number) {
    const auto route = makeRoute(number, isPattern);
    route->setHandler(answer);
    configuration->addRoute(route);
  }
  for (unsigned long left = argc == 5 ? std::strtoul(argv[4], nullptr, 10) : 0; left > 0; --left) {
    configuration->addMiddleware(makeMiddleware(argv[3]));
  }
  const auto loops = std::make_shared<VELEventLoops>(1);
  const auto server = std::make_shared<VELServer>(configuration, loops);
  server->setInterface("127.0.0.1");
  VELError error;
  if (!server->start(&error)) {
    std::fprintf(stderr, "bench_host: %s\n", error.description().c_str());
    return 1;
  }
  std::printf("Listening on http://127.0.0.1:%u/\n", unsigned{server->listeningPort()});
  std::fflush(stdout);
  int number = 0;
  sigwait(&ending, &number);
  server->kill();
}
