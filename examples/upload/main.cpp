// A host that takes uploads: POST or PUT a body of any size to it and it tells how long the body was,
// where it was kept and how many lines it has. Small bodies are in memory, large ones in a file.
#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "corvane/block_route.h"
#include "corvane/configuration.h"
#include "corvane/server.h"

namespace {

// The file goes away when the connection's next request begins: a host that wants to keep it moves
// it elsewhere before it answers.
int64_t linesInFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n');
}

std::string describeBody(const VELRequest& request) {
  std::string where = "no body";
  int64_t lines = 0;
  if (const auto& file = request.bodyFileURL()) {
    where = "in a file";
    lines = linesInFile(file->filePath());
  } else if (const auto& data = request.bodyData()) {
    where = "in memory";
    lines = std::count(data->view().begin(), data->view().end(), '\n');
  }
  return std::to_string(request.contentLength()) + " bytes, " + where + ", " +
         std::to_string(lines) + " lines\n";
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before the library starts its threads, so that sigwait below is the one that gets them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  auto route = std::make_shared<VELBlockRoute>("/upload", false);
  route->setAllowedHTTPMethods({"POST", "PUT"});
  route->setHandler([](VELRoute&, std::shared_ptr<VELRequest> request, VELResponseHandler respond) {
    respond(VELResponse::responseWithString(describeBody(*request), VELUTF8StringEncoding, 200,
                                            "text/plain; charset=utf-8"));
  });
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->addRoute(route);

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
