// A host with a door: everybody may read the front page, and only its user, with the password, what is
// behind /private. How long the answer takes tells nothing about how much of either was right.
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "corvane/authentication.h"
#include "corvane/block_route.h"
#include "corvane/configuration.h"
#include "corvane/digest.h"
#include "corvane/server.h"

namespace {

// Compares digests, which all have one length, and never stops at the first difference. A host with
// many users keeps slow, salted hashes of their passwords instead.
bool areEqual(const std::string& digest, const std::string& other) {
  volatile int difference = digest.size() == other.size() ? 0 : 1;
  for (size_t index = 0; index < digest.size() && index < other.size(); ++index) {
    difference = difference | (digest[index] ^ other[index]);
  }
  return difference == 0;
}

class OneUser : public VELBasicAuthenticatorDelegate {
 public:
  OneUser(const std::string& username, const std::string& password)
      : username_(VELSHA256Digest(username)), password_(VELSHA256Digest(password)) {}

  bool basicAuthenticatorAuthenticateRequest(VELBasicAuthenticator&, VELRequest&,
                                             const std::string& username,
                                             const std::string& password) override {
    const bool isUser = areEqual(username_, VELSHA256Digest(username));
    const bool isPassword = areEqual(password_, VELSHA256Digest(password));
    // Both have been compared by now, whatever the first says.
    return isUser && isPassword;
  }

 private:
  const std::string username_;
  const std::string password_;
};

std::shared_ptr<VELBlockRoute> textRoute(const std::string& path, const std::string& text) {
  auto route = std::make_shared<VELBlockRoute>(path, false);
  route->setHandler([text](VELRoute&, std::shared_ptr<VELRequest>, VELResponseHandler respond) {
    respond(VELResponse::responseWithString(text, VELUTF8StringEncoding, 200,
                                            "text/plain; charset=utf-8"));
  });
  return route;
}

std::string fromEnvironment(const char* name, const char* otherwise) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : otherwise;
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before the library starts its threads, so that sigwait below is the one that gets them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  // Not from the command line, which every user of the machine can read.
  const auto user = std::make_shared<OneUser>(fromEnvironment("EXAMPLE_USER", "guest"),
                                              fromEnvironment("EXAMPLE_PASSWORD", "open sesame"));
  auto authenticator = std::make_shared<VELBasicAuthenticator>();
  authenticator->setRealm("The private part");
  // The authenticator does not keep it.
  authenticator->setDelegate(user);
  auto guarded = textRoute("/private", "Behind the door\n");
  guarded->setAuthenticators({authenticator});

  auto configuration = std::make_shared<VELConfiguration>();
  configuration->addRoute(guarded);
  configuration->addRoute(textRoute("/", "In front of the door\n"));
  configuration->addMiddleware(std::make_shared<VELAuthenticationMiddleware>());

  auto server = std::make_shared<VELServer>(configuration);
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
