// A host with two middlewares: one tells in a header field how long each answer took, the other makes
// one and the same JSON page of every error, whether a route failed or answered with an error status.
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/block_route.h"
#include "corvane/configuration.h"
#include "corvane/responses.h"
#include "corvane/server.h"

namespace {

/// Adds the field "Server-Timing", which browsers show in their developer tools.
class Timing : public VELMiddleware {
 public:
  std::shared_ptr<VELResponse> evaluateRequest(VELRequest& request, VELRoute&) override {
    // One middleware serves all connections at once, so what it notes travels with the request.
    VELDictionary headers = request.headers();
    headers[kBegan] = std::to_string(now());
    request.setHeaders(headers);
    return nullptr;
  }

  std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse> response,
                                                VELRequest& request) override {
    const std::string began = request.valueForHeader(kBegan).value_or("");
    int64_t microseconds = 0;
    std::from_chars(began.data(), began.data() + began.size(), microseconds);
    char text[64];
    std::snprintf(text, sizeof text, "total;dur=%.3f",
                  static_cast<double>(now() - microseconds) / 1000);
    response->setValueForHeader(text, "Server-Timing");
    return response;
  }

 private:
  static constexpr char kBegan[] = "X-Began";

  static int64_t now() {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
  }
};

/// UTF-8 `text` as a JSON string (RFC 8259 §7).
std::string jsonString(std::string_view text) {
  std::string json = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      json += {'\\', c};
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      json += escape;
    } else {
      json += c;
    }
  }
  return json + '"';
}

/// Makes a problem document (RFC 9457) of every error.
class ErrorPages : public VELMiddleware {
 public:
  std::shared_ptr<VELResponse> evaluateError(const VELError& error, VELRequest& request) override {
    return page(500, error.localizedDescription(), request);
  }

  std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse> response,
                                                VELRequest& request) override {
    if (response->status() < 400 || response->contentType() == kType) return response;
    const auto replacement =
        page(response->status(), response->statusDescription().value_or(""), request);
    // Such as "Allow" and "WWW-Authenticate"; what describes the body belongs to the new one.
    for (const VELHeaderField& field : response->headerFields()) {
      if (field.name.starts_with("Content-")) continue;
      replacement->setValueForHeader(field.value, field.name);
    }
    return replacement;
  }

 private:
  static constexpr char kType[] = "application/problem+json";

  static std::shared_ptr<VELResponse> page(uint64_t status, const std::string& title,
                                           const VELRequest& request) {
    std::string json = "{\"status\": " + std::to_string(status);
    if (!title.empty()) json += ", \"title\": " + jsonString(title);
    json += ", \"instance\": " + jsonString("urn:uuid:" + request.identifier().UUIDString());
    return VELResponse::responseWithString(json + "}\n", VELUTF8StringEncoding, status, kType);
  }
};

std::shared_ptr<VELBlockRoute> route(const std::string& path, VELBlockRoute::Handler handler) {
  auto route = std::make_shared<VELBlockRoute>(path, false);
  route->setHandler(std::move(handler));
  return route;
}

std::shared_ptr<VELConfiguration> makeConfiguration() {
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->addRoute(route(
      "/fails", [](VELRoute&, std::shared_ptr<VELRequest> request, VELResponseHandler respond) {
        respond(nullptr, VELError("ExampleErrorDomain", 1,
                                  "Nobody can \"" + request->path().substr(1) + "\" here."));
      }));
  configuration->addRoute(
      route("/hello", [](VELRoute&, std::shared_ptr<VELRequest>, VELResponseHandler respond) {
        respond(VELResponse::responseWithString("Hello\n", VELUTF8StringEncoding, 200,
                                                "text/plain; charset=utf-8"));
      }));
  // The last route has every other path, so that middlewares see the answer to it as well.
  configuration->addRoute(
      route("/", [](VELRoute&, std::shared_ptr<VELRequest>, VELResponseHandler respond) {
        respond(std::make_shared<VELNotFoundResponse>());
      }));
  // The first one is asked first and sees the answer last.
  configuration->addMiddleware(std::make_shared<Timing>());
  configuration->addMiddleware(std::make_shared<ErrorPages>());
  return configuration;
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before the library starts its threads, so that sigwait below is the one that gets them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  auto server = std::make_shared<VELServer>(makeConfiguration());
  server->setInterface("localhost");
  server->setPort(static_cast<uint16_t>(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 8080));
  VELError error;
  if (!server->start(&error)) {
    std::cerr << error.localizedDescription() << '\n';
    return EXIT_FAILURE;
  }
  std::cout << "Listening on http://localhost:" << server->listeningPort() << "/" << std::endl;

  int received = 0;
  sigwait(&signals, &received);
  server->kill();
  return EXIT_SUCCESS;
}
