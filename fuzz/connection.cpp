// A whole connection in memory: whatever a client sends, in whatever pieces, every byte that comes back
// belongs to a well-formed answer, and the pieces make no difference.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/block_route.h"
#include "corvane/log.h"
#include "corvane/response.h"
#include "corvane/server.h"
#include "platform/ascii.h"
#include "platform/clock.h"
#include "platform/memory_pipe.h"
#include "platform/memory_socket.h"
#include "support/manual_loops.h"

namespace {

using vel::MemoryEnd;

// What the server told its host about one answer.
struct Told {
  std::string method;
  uint64_t status;
  uint64_t bytes;
  uint64_t body_bytes;
};

void require(bool holds, const char* what, std::string_view bytes) {
  if (holds) return;
  std::fprintf(stderr, "%s: \"%.*s\"\n", what, static_cast<int>(bytes.size()), bytes.data());
  abort();
}

std::shared_ptr<VELResponse> echoOf(const VELRequest& request) {
  std::string text = request.method() + " " + std::to_string(request.contentLength()) + "\n";
  if (const auto body = request.body()) text += body->view();
  if (const auto file = request.bodyFileURL()) ::unlink(file->filePath().c_str());
  auto response = VELResponse::responseWithData(VELData(std::move(text)), 200);
  // The length that the connection tells is looked at, of ranges too.
  response->removeValueForHeader("Content-Length");
  return response;
}

/// Delivers itself in three pieces.
class ChunkedResponse : public VELResponse {
 public:
  ChunkedResponse() {
    setStatus(200);
    setChunked(true);
  }
  VELData readDataOfLength(uint64_t) override { return VELData(std::string(++pieces_, 'p')); }
  bool isFinished() const override { return pieces_ == 3; }

 private:
  size_t pieces_ = 0;
};

std::shared_ptr<VELResponse> chunkedResponse(const VELRequest&) {
  return std::make_shared<ChunkedResponse>();
}

class Server {
 public:
  Server() {
    char directory[] = "/tmp/corvane-fuzz-XXXXXX";
    if (::mkdtemp(directory) != nullptr) ::setenv("TMPDIR", directory, 1);
    vel::stopClock();
    VELSetLogSink([](std::string_view) {});
    auto configuration = std::make_shared<VELConfiguration>();
    addRoute(*configuration, "/echo", echoOf,
             {"GET", "HEAD", "POST", "PUT", "DELETE", "OPTIONS", "TRACE", "FUZZ"});
    addRoute(*configuration, "/chunked", chunkedResponse, {"GET", "POST"});
    addRoute(*configuration, "/nothing", [](const VELRequest&) { return nullptr; }, {"GET"});
    VELLimits limits;
    limits.bodyInMemory = 600;
    limits.bodyPiece = 200;
    configuration->setLimits(limits);
    server_ = std::make_shared<VELServer>(configuration, loops_.loops());
    server_->setInterface("127.0.0.1");
    server_->setRequestFinishedHandler([this](const VELRequestSummary& summary) {
      told_.push_back(
          {std::string(summary.method), summary.status, summary.bytesSent, summary.bodyBytesSent});
    });
    if (!server_->start()) abort();
  }

  /// Sends `bytes` in pieces whose lengths `pieces` gives, over and over, and returns what comes back.
  std::string converse(std::string_view bytes, std::string_view pieces) {
    told_.clear();
    auto [near, far] = MemoryEnd::makePipe();
    auto socket = std::make_shared<vel::MemorySocket>(
        std::move(far), std::make_shared<VELSerialQueue>("org.corvane.Fuzz", loops_.loops()));
    server_->socketDidAcceptNewSocket(*socket, std::move(socket));
    std::string received;
    for (size_t turn = 0; !bytes.empty(); ++turn) {
      const size_t length =
          pieces.empty() ? bytes.size()
                         : std::min<size_t>(bytes.size(),
                                            1 + static_cast<uint8_t>(pieces[turn % pieces.size()]));
      const iovec vector{const_cast<char*>(bytes.data()), length};
      if (near->send(&vector, 1) != static_cast<ptrdiff_t>(length)) break;
      bytes.remove_prefix(length);
      loops_.run();
      take(*near, received);
    }
    near->finishSending();
    loops_.run();
    vel::advanceClock(std::chrono::minutes(2));
    loops_.run();
    take(*near, received);
    require(server_->numberOfConnections() == 0, "the connection stays", received);
    return received;
  }

  const std::vector<Told>& told() const { return told_; }

 private:
  template <class Answer>
  static void addRoute(VELConfiguration& configuration, const char* path, Answer answer,
                       std::vector<std::string> methods) {
    auto route = std::make_shared<VELBlockRoute>(path, false);
    route->setAllowedHTTPMethods(std::move(methods));
    route->setHandler([answer](VELRoute&, const std::shared_ptr<VELRequest>& request,
                               const VELResponseHandler& respond) { respond(answer(*request)); });
    configuration.addRoute(route);
  }

  static void take(MemoryEnd& end, std::string& received) {
    char buffer[16 * 1024];
    for (ptrdiff_t length = 0; (length = end.receive(buffer, sizeof buffer)) > 0;) {
      received.append(buffer, static_cast<size_t>(length));
    }
  }

  vel::test::ManualLoops loops_;
  std::shared_ptr<VELServer> server_;
  std::vector<Told> told_;
};

// Takes a line without its CR LF off `rest`.
std::string_view takeLine(std::string_view& rest) {
  const size_t end = rest.find("\r\n");
  require(end != std::string_view::npos, "a line has no end", rest);
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end + 2);
  require(std::none_of(line.begin(), line.end(),
                       [](char c) { return c == '\r' || c == '\n' || c == '\0'; }),
          "a line holds a control character", line);
  return line;
}

// Takes the whole body of a chunked answer off `rest` (RFC 9112 §7.1).
void takeChunks(std::string_view& rest) {
  for (size_t size = 1; size != 0;) {
    const std::string_view line = takeLine(rest);
    const auto parsed = std::from_chars(line.data(), line.data() + line.size(), size, 16);
    require(parsed.ptr == line.data() + line.size() && rest.size() >= size + 2, "no chunk", line);
    rest.remove_prefix(size);
    require(takeLine(rest).empty(), "a chunk has no end", rest);
  }
}

// Takes one answer off `rest` (RFC 9112 §4 to §6); it must be the one that was told of. Ranges may be left
// unfinished by the last one, and those without bytes have only framing.
void takeAnswer(std::string_view& rest, const Told& told, bool is_last) {
  const std::string_view whole = rest;
  const std::string_view status = takeLine(rest);
  require(status.starts_with("HTTP/1.1 ") && status.size() >= 13 && status[12] == ' ' &&
              status.substr(9, 3) == std::to_string(told.status),
          "no status line, or another status", status);
  size_t length = 0;
  bool is_chunked = false;
  for (std::string_view line = takeLine(rest); !line.empty(); line = takeLine(rest)) {
    const size_t colon = line.find(": ");
    require(colon != std::string_view::npos && colon > 0, "no field", line);
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = line.substr(colon + 2);
    if (vel::equalsIgnoringCase(name, "Content-Length")) {
      const auto parsed = std::from_chars(value.data(), value.data() + value.size(), length);
      require(parsed.ptr == value.data() + value.size(), "no length", line);
    }
    is_chunked = is_chunked || vel::equalsIgnoringCase(name, "Transfer-Encoding");
  }
  const size_t head = whole.size() - rest.size();
  if (told.method != "HEAD" && is_chunked) {
    takeChunks(rest);
  } else if (told.method != "HEAD" && told.status == 206) {
    // The answer to TRACE has a length of its own, which stands whatever the ranges are.
    const bool has_own_length = told.method == "TRACE";
    require(told.body_bytes == length || told.body_bytes == 0 || is_last || has_own_length,
            "a range is cut", whole);
    require(told.bytes >= head && told.bytes - head <= rest.size(), "bytes are missing", whole);
    rest.remove_prefix(told.bytes - head);
  } else if (told.method != "HEAD") {
    require(rest.size() >= length && told.body_bytes == length, "a body is cut", whole);
    rest.remove_prefix(length);
  }
  require(whole.size() - rest.size() == told.bytes && head <= told.bytes, "other bytes were told",
          whole);
}

// The dates and the boundaries of two conversations may differ.
std::string comparable(std::string text) {
  constexpr std::string_view kDate = "\r\nDate: ";
  for (size_t at = 0; (at = text.find(kDate, at)) != std::string::npos; at += kDate.size()) {
    text.erase(at + kDate.size(), 29);
  }
  // The answer to TRACE does not announce the boundary that it uses.
  constexpr size_t kBoundary = 36;
  for (const std::string_view before : {"\r\n--", "; boundary="}) {
    for (size_t at = 0; (at = text.find(before, at)) != std::string::npos; at += before.size()) {
      const std::string_view boundary =
          std::string_view(text).substr(at + before.size(), kBoundary);
      if (boundary.size() == kBoundary && boundary[8] == '-' && boundary[23] == '-') {
        text.erase(at + before.size(), kBoundary);
      }
    }
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto* const server = new Server;
  // The first byte says how many of those behind it are lengths of pieces.
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const size_t count = bytes.empty() ? 0 : std::min<size_t>(bytes[0] & 7, bytes.size() - 1);
  const std::string_view pieces = bytes.substr(bytes.empty() ? 0 : 1, count);
  bytes.remove_prefix(std::min(bytes.size(), count + 1));

  const std::string answers = server->converse(bytes, pieces);
  std::string_view rest = answers;
  const std::vector<Told>& answered = server->told();
  for (const Told& told : answered) {
    if (told.status != 0) takeAnswer(rest, told, &told == &answered.back());
  }
  require(rest.empty(), "bytes belong to no answer", rest);
  const std::string whole = server->converse(bytes, {});
  require(comparable(answers) == comparable(whole), "the pieces make a difference", whole);
  return 0;
}
