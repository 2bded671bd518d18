// The reader of requests: the connection engine over a socket in memory gives the answers, and its
// route sees the requests, that a plain reading of the same bytes finds: with the usual limits, and
// with limits that a short input reaches, in any pieces.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/http_connection.h"
#include "corvane/server.h"
#include "support/fake_connection.h"
#include "support/fake_socket.h"
#include "support/pieces.h"
#include "support/plain_requests.h"
#include "support/require.h"
#include "support/silent_log.h"

namespace vel::fuzz {
namespace {

using test::FakeSocket;
using test::SocketCall;

constexpr unsigned kTurns = 2;
// One by one, more would only take time.
constexpr size_t kMostBytesOneByOne = 256;

/// The requests that reached the route of the connection that is being fed.
std::vector<std::string>& evaluated() {
  static std::vector<std::string> requests;
  return requests;
}

void evaluate(const std::shared_ptr<VELRequest>& request, const VELResponseHandler& respond) {
  const VELData body = request->body().value_or(VELData());
  require(request->contentLength() == body.length(), "the length is that of the body");
  require(request->URL().has_value(), "a request has a URL");
  require(request->path().starts_with('/'), "the route has the path");
  (void)request->GETParameters();
  (void)request->POSTParameters();
  (void)request->description();
  const std::string target = request->URL()->absoluteString();
  evaluated().push_back(requestText(request->method(), target, body.view()));
  const auto response =
      VELResponse::responseWithData(VELData(std::string("answer")), 200, "text/plain");
  // Of a body in chunks no ranges are sent, whatever the request asks for.
  response->setChunked(true);
  respond(response);
}

VELLimits narrowLimits() {
  VELLimits limits;
  limits.headLineLength = 64;
  limits.headLines = 10;
  limits.chunkSizeLineLength = 16;
  limits.bodyPiece = 5;
  return limits;
}

/// A server that never listens.
std::shared_ptr<VELServer> serverWithLimits(const VELLimits& limits) {
  auto configuration = test::configurationWith({test::routeFor("/", evaluate)});
  configuration->setLimits(limits);
  configuration->setKeepAliveInterval(0);
  return std::make_shared<VELServer>(std::move(configuration));
}

/// One connection from its start to its end.
class Session {
 public:
  explicit Session(const std::shared_ptr<VELServer>& server)
      : connection_(std::make_shared<VELHTTPConnection>(socket_, server)) {
    evaluated().clear();
    socket_->settleInOneTurn();
    server->addConnection(connection_);
    connection_->start();
    socket_->settle();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() { socket_->breakOff(); }

  void receive(std::string_view bytes) { socket_->receive(bytes); }

  PlainRequests result() const {
    PlainRequests result;
    result.evaluated = evaluated();
    for (const SocketCall& call : socket_->calls()) {
      // Each answer begins with a write of its own, and no body begins like an answer.
      if (call.kind == SocketCall::Kind::kWrite && call.bytes.starts_with("HTTP/1.1 ")) {
        result.statuses.push_back(std::atoi(call.bytes.c_str() + 9));
      }
    }
    if (socket_->wasDisconnectedAfterWriting()) {
      result.ending = Ending::kCloses;
    } else if (socket_->wasDisconnected()) {
      result.ending = Ending::kDropped;
    } else {
      require(socket_->pendingRead().has_value(), "an open connection reads");
    }
    result.unread = socket_->unread().size();
    return result;
  }

 private:
  const std::shared_ptr<FakeSocket> socket_ = std::make_shared<FakeSocket>();
  const std::shared_ptr<VELHTTPConnection> connection_;
};

void checkRequests(std::string_view bytes) {
  static const VELLimits usual;
  static const VELLimits narrow = narrowLimits();
  // They live as long as the process.
  static const auto* const server = new std::shared_ptr(serverWithLimits(usual));
  static const auto* const narrow_server = new std::shared_ptr(serverWithLimits(narrow));
  {
    Session session(*server);
    session.receive(bytes);
    require(session.result() == plainRequestsOf(bytes, usual), "the requests of the whole");
  }
  const PlainRequests expected = plainRequestsOf(bytes, narrow);
  for (unsigned turn = bytes.size() > kMostBytesOneByOne ? 1 : 0; turn < kTurns; ++turn) {
    Session session(*narrow_server);
    forEachPiece(bytes, turn, [&](std::string_view piece) { session.receive(piece); });
    require(session.result() == expected, "the requests of the pieces");
  }
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::silenceLog();
  vel::fuzz::checkRequests({reinterpret_cast<const char*>(data), size});
  return 0;
}
