// Building the server out of the options, announcing it, and ending it: the first signal lets
// requests in flight finish, a second one ends the process as signals do.
#include "serve.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <string_view>

#include "access_log.h"
#include "corvane/authentication.h"
#include "corvane/configuration.h"
#include "corvane/event_loops.h"
#include "corvane/identity.h"
#include "corvane/log.h"
#include "corvane/server.h"
#include "routes.h"
#include "standard_error.h"

namespace {

constexpr std::chrono::seconds kDrainDeadline{5};

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

int cannotStart(const std::string& sentence) {
  writeLineToStandardError("corvane: " + sentence);
  return kCannotStart;
}

std::string hostInURL(const std::string& host) {
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

/// One line, flushed: whoever started the program reads it to learn the address.
/// The one line by which whoever started the program learns where it listens. False when it got lost.
bool announce(const VELServer& server, bool is_secure) {
  const VELSocketAddress address = server.listeningAddress();
  std::printf("Listening on %s://%s:%u/\n", is_secure ? "https" : "http",
              hostInURL(address.host).c_str(), static_cast<unsigned>(server.listeningPort()));
  return std::fflush(stdout) == 0;
}

/// Waits for a signal, after which the next one has its default action.
void waitForEndingSignal() {
  const sigset_t signals = endingSignals();
  int received = 0;
  while (sigwait(&signals, &received) != 0) {
  }
  // The shell may have started the program with signals ignored.
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void drain(VELServer& server) {
  auto finished = std::make_shared<std::promise<void>>();
  std::future<void> end = finished->get_future();
  server.drain(kDrainDeadline, [finished] { finished->set_value(); });
  // A connection that does not even die in time is not waited for.
  if (end.wait_for(kDrainDeadline + std::chrono::seconds(1)) != std::future_status::ready) {
    std::_Exit(EXIT_SUCCESS);
  }
}

std::shared_ptr<VELConfiguration> makeConfiguration(const ServeOptions& options,
                                                    VELCertificateList certificates) {
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->setRoutes(makeRoutes(options));
  const bool isGuarded = std::any_of(options.routes.begin(), options.routes.end(),
                                     [](const RouteOption& route) { return !route.users.empty(); });
  if (isGuarded) configuration->addMiddleware(std::make_shared<VELAuthenticationMiddleware>());
  configuration->setProfile(VELProfile::kClassic);
  configuration->setSSLCertificates(std::move(certificates));
  if (options.keepAlive) configuration->setKeepAliveInterval(*options.keepAlive);
  return configuration;
}

void logAccess(const VELRequestSummary& summary) {
  writeLineToStandardError(accessLine(summary, std::time(nullptr)));
}

}  // namespace

void blockEndingSignals() {
  const sigset_t signals = endingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int serve(const ServeOptions& options) {
  // Whoever reads the log may go away before the server does.
  std::signal(SIGPIPE, SIG_IGN);
  VELSetLogSink([](std::string_view line) { writeLineToStandardError(std::string(line)); });
  if (options.debug) VELSetDebugLogging(true);

  for (const RouteOption& route : options.routes) {
    std::error_code ignored;
    if (route.kind != RouteOption::Kind::kFiles ||
        std::filesystem::is_directory(route.text, ignored)) {
      continue;
    }
    return cannotStart(route.text + " is not a directory");
  }
  const bool is_secure = !options.certificateFile.empty();
  VELError error;
  VELCertificateList certificates;
  if (is_secure) {
    certificates =
        VELIdentity::certificateListWithPEMFiles(options.certificateFile, options.keyFile, &error);
    if (certificates.empty()) {
      return cannotStart("the certificate " + options.certificateFile + " and the key " +
                         options.keyFile + " cannot be used: " + error.localizedDescription());
    }
  }

  auto loops = options.threads == 0 ? VELEventLoops::sharedLoops()
                                    : std::make_shared<VELEventLoops>(options.threads);
  auto server =
      std::make_shared<VELServer>(makeConfiguration(options, std::move(certificates)), loops);
  server->setInterface(options.host);
  server->setPort(options.port);
  if (!options.quiet) server->setRequestFinishedHandler(logAccess);
  if (!server->start(&error)) {
    return cannotStart("cannot listen on " + hostInURL(options.host) + ":" +
                       std::to_string(options.port) + ": " + error.localizedDescription());
  }
  if (!announce(*server, is_secure)) {
    return cannotStart("standard output cannot be written, so nobody would learn the address");
  }
  waitForEndingSignal();
  drain(*server);
  return EXIT_SUCCESS;
}
