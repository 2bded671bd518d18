// The routes of a hostile client's server, and its stocktaking.
#include "hostile/hostile_server.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>

#include "platform/clock.h"
#include "support/socket_peer.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

std::shared_ptr<VELBlockRoute> generatedRoute(const std::string& path, bool isChunked) {
  return blockRoute(path, [isChunked](VELRoute&, const auto&, const auto& respond) {
    respond(std::make_shared<GeneratedResponse>(HostileServer::kLarge, isChunked));
  });
}

std::shared_ptr<VELBlockRoute> uploadRoute() {
  auto route = blockRoute("/upload", [](VELRoute&, const auto& request, const auto& respond) {
    respond(textResponse(std::to_string(request->contentLength())));
  });
  route->setAllowedHTTPMethods({"POST"});
  return route;
}

}  // namespace

GeneratedResponse::GeneratedResponse(uint64_t length, bool isChunked) : left_(length) {
  setStatus(200);
  setContentLength(length);
  setChunked(isChunked);
}

VELData GeneratedResponse::readDataOfLength(uint64_t length) {
  const uint64_t piece = std::min(length, left_);
  left_ -= piece;
  return VELData(std::string(piece, 'g'));
}

HostileServer::HostileServer(Transport transport, size_t loops) {
  ::setenv("TMPDIR", directory_.path().c_str(), 1);
  const TestServer::Options options{.transport = transport, .loops = loops};
  server_ = std::make_unique<TestServer>(options, [this](VELConfiguration& configuration) {
    VELLimits limits;
    limits.bodyInMemory = 64;
    configuration.setLimits(limits);
    configuration.addRoute(textRoute("/text", "Hello"));
    configuration.addRoute(uploadRoute());
    configuration.addRoute(generatedRoute("/large", false));
    configuration.addRoute(generatedRoute("/chunks", true));
    configuration.addRoute(blockRoute("/held", held_.handler()));
    configuration.addRoute(
        blockRoute("/dropped", [](VELRoute&, const auto&, const VELResponseHandler&) {}));
  });
  takeTurn();
  descriptors_ = openDescriptorCount();
}

void HostileServer::takeTurn() {
  const auto client = server_->connect();
  client->send(head({"GET /text HTTP/1.1", "Connection: close"}));
  EXPECT_EQ(client->readAnswer().body, "Hello");
  EXPECT_EQ(client->readToEnd(), "");
}

void HostileServer::passTime(std::chrono::seconds time) {
  advanceClock(time);
  takeTurn();
}

bool HostileServer::takeTurnsUntil(const std::function<bool()>& isTrue) {
  const auto limit = std::chrono::steady_clock::now() + kPatience;
  while (!isTrue()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    takeTurn();
  }
  return true;
}

size_t HostileServer::uploads() const {
  const std::string directory = directory_.path("org.corvane/Uploads");
  if (!std::filesystem::exists(directory)) return 0;
  const std::filesystem::directory_iterator files(directory);
  return static_cast<size_t>(std::distance(begin(files), end(files)));
}

void HostileServer::expectNothingLeft(size_t uploads) {
  EXPECT_TRUE(server_->waitForConnections(0));
  EXPECT_TRUE(takeTurnsUntil([this] { return openDescriptorCount() <= descriptors_; }))
      << openDescriptorCount() << " descriptors instead of " << descriptors_;
  EXPECT_EQ(this->uploads(), uploads);
  std::filesystem::remove_all(directory_.path("org.corvane"));
  takeTurn();
}

}  // namespace vel::test
