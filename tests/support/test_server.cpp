// Waiting is always for a word of the server's, never for time to pass.
#include "support/test_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "corvane/identity.h"
#include "platform/memory_socket.h"
#include "support/memory_wire.h"
#include "support/socket_wire.h"
#include "support/test_certificate.h"
#include "support/tls_wire.h"

namespace vel::test {
namespace {

constexpr char kHost[] = "127.0.0.1";
constexpr char kAlivePath[] = "/is-alive";
constexpr char kAliveText[] = "alive";

const VELCertificateList& certificates() {
  static const VELCertificateList list = [] {
    const TestIdentity identity = makeSelfSignedIdentity(KeyKind::kEC, {"localhost"});
    return VELIdentity::certificateListWithPEM(identity.certificates, identity.privateKey);
  }();
  return list;
}

bool isInMemory(Transport transport) { return transport >= Transport::kMemory; }

bool isSecure(Transport transport) {
  return transport == Transport::kTLS || transport == Transport::kMemoryTLSByBytes;
}

}  // namespace

std::string transportName(Transport transport) {
  constexpr const char* kNames[] = {"TCP", "TLS", "Memory", "MemoryByBytes", "MemoryTLSByBytes"};
  return kNames[static_cast<size_t>(transport)];
}

std::shared_ptr<VELBlockRoute> blockRoute(const std::string& path, VELBlockRoute::Handler handler) {
  auto route = std::make_shared<VELBlockRoute>(path, false);
  route->setHandler(std::move(handler));
  return route;
}

std::shared_ptr<VELBlockRoute> textRoute(const std::string& path, const std::string& text) {
  return blockRoute(path,
                    [text](VELRoute&, const std::shared_ptr<VELRequest>&,
                           const VELResponseHandler& respond) { respond(textResponse(text)); });
}

std::shared_ptr<VELResponse> textResponse(const std::string& text) {
  return VELResponse::responseWithData(VELData(text), 200, "text/plain");
}

template <typename Predicate>
bool TestServer::waitUntil(const Predicate& predicate) {
  const auto holds = [&] {
    const std::lock_guard lock(mutex_);
    return predicate();
  };
  if (manual_loops_) return manual_loops_->runUntil(holds);
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kPatience, predicate);
}

TestServer::TestServer(const Options& options,
                       const std::function<void(VELConfiguration&)>& configure)
    : transport_(options.transport),
      manual_loops_(isInMemory(transport_) ? std::make_shared<ManualLoops>() : nullptr),
      loops_(manual_loops_ ? manual_loops_->loops()
                           : std::make_shared<VELEventLoops>(options.loops)) {
  auto configuration = std::make_shared<VELConfiguration>();
  configuration->addRoute(textRoute(kAlivePath, kAliveText));
  if (isSecure(transport_)) configuration->setSSLCertificates(certificates());
  configure(*configuration);
  server_ = std::make_shared<VELServer>(configuration, loops_);
  observation_ = server_->observe("connections", [this](const VELChange& change) {
    const std::lock_guard guard(mutex_);
    if (change.isPrior) return;
    change.kind == VELChange::Kind::kInsertion ? ++unclosed_ : --unclosed_;
    changed_.notify_all();
  });
  server_->setRequestFinishedHandler([this](const VELRequestSummary& summary) {
    const std::lock_guard guard(mutex_);
    finished_.push_back({std::string(summary.method), std::string(summary.target), summary.status,
                         summary.bytesSent, summary.bodyBytesSent, summary.request != nullptr});
    changed_.notify_all();
  });
  server_->setInterface(kHost);
  VELError error;
  if (!server_->start(&error)) throw std::runtime_error(error.localizedDescription());
}

TestServer::~TestServer() {
  server_->kill();
  // Killed connections are out of the server's set at once, but close one after the other.
  EXPECT_TRUE(waitUntil([this] { return unclosed_ == 0; }));
  observation_ = VELObservation();
  server_.reset();
  loops_->stop();
}

std::unique_ptr<Wire> TestServer::connectWire() {
  if (!manual_loops_) return std::make_unique<SocketWire>(kHost, port());
  auto [near, far] = MemoryEnd::makePipe();
  const auto queue = std::make_shared<VELSerialQueue>("org.corvane.Test", loops_);
  const auto socket = std::make_shared<MemorySocket>(std::move(far), queue);
  server_->socketDidAcceptNewSocket(*socket, socket);
  manual_loops_->run();
  const size_t piece = transport_ == Transport::kMemory ? 0 : 1;
  return std::make_unique<MemoryWire>(std::move(near), manual_loops_, piece);
}

std::unique_ptr<WireClient> TestServer::connect() {
  std::unique_ptr<Wire> wire = connectWire();
  if (isSecure(transport_)) wire = std::make_unique<TLSWire>(std::move(wire));
  return std::make_unique<WireClient>(std::move(wire));
}

std::unique_ptr<WireClient> TestServer::connectPlain() {
  return std::make_unique<WireClient>(connectWire());
}

bool TestServer::isServed(WireClient& client) {
  return client.exchange(std::string("GET ") + kAlivePath + " HTTP/1.1\r\n\r\n").body == kAliveText;
}

bool TestServer::waitForConnections(size_t count) {
  return waitUntil([this, count] { return server_->numberOfConnections() == count; });
}

bool TestServer::waitFor(const std::future<void>& event) {
  const auto has_come = [&event](std::chrono::seconds most) {
    return event.wait_for(most) == std::future_status::ready;
  };
  if (!manual_loops_) return has_come(kPatience);
  return manual_loops_->runUntil([&has_come] { return has_come(std::chrono::seconds(0)); });
}

std::vector<FinishedRequest> TestServer::waitForFinishedRequests(size_t count) {
  waitUntil([this, count] { return finished_.size() >= count; });
  const std::lock_guard guard(mutex_);
  return finished_;
}

}  // namespace vel::test
