// The host that bench/soak loads: plain and TLS on the same loops, a route for each way of
// answering, and threads that keep editing the configuration. It tells its counts whenever a line
// comes in, and its exit status says whether every connection was gone after a drain.
#include <corvane/block_route.h>
#include <corvane/identity.h>
#include <corvane/log.h>
#include <corvane/responses.h>
#include <corvane/server.h>
#include <malloc.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "soak_later.h"

namespace bench {
namespace {

constexpr std::string_view kText = "text/plain; charset=utf-8";
constexpr auto kDrainLimit = std::chrono::seconds(5);

std::atomic<std::uint64_t> requestCount{0};
std::atomic<std::uint64_t> editCount{0};
std::atomic<std::uint64_t> logLineCount{0};

std::shared_ptr<VELResponse> text(std::string words) {
  return VELResponse::responseWithString(words, VELUTF8StringEncoding, 200, std::string(kText));
}

// A gibibyte out of one block of letters: byte N is 'a' + N % 26.
class Endless : public VELResponse {
 public:
  Endless() {
    setStatus(200);
    setContentLength(kLength);
  }
  VELData readDataOfLength(std::uint64_t length) override {
    static const std::string letters = makeLetters();
    const std::uint64_t count = std::min({length, kPiece, kLength - position_});
    const std::string_view piece = std::string_view(letters).substr(position_ % kLetters, count);
    position_ += count;
    return VELData::dataWithStaticBytes(piece);
  }
  bool isFinished() const override { return position_ == kLength; }

 private:
  static constexpr std::uint64_t kLength = 1ull << 30;
  static constexpr std::uint64_t kPiece = 256ull << 10;
  static constexpr std::uint64_t kLetters = 26;

  static std::string makeLetters() {
    std::string letters;
    for (std::uint64_t i = 0; i < kPiece + kLetters; ++i) {
      letters.push_back(static_cast<char>('a' + i % kLetters));
    }
    return letters;
  }

  std::uint64_t position_ = 0;
};

// A hundred pieces of a hundred bytes, as chunks.
class Chunked : public VELResponse {
 public:
  Chunked() {
    setStatus(200);
    setChunked(true);
    setContentType(std::string(kText));
  }
  VELData readDataOfLength(std::uint64_t length) override {
    ++pieces_;
    return VELData(std::string(std::min<std::uint64_t>(length, 100), '.'));
  }
  bool isFinished() const override { return pieces_ == 100; }

 private:
  int pieces_ = 0;
};

// The checksum of RFC 1950, which the bench's side has at hand.
class Adler32 {
 public:
  void add(std::string_view bytes) {
    for (const char byte : bytes) {
      a_ = (a_ + static_cast<unsigned char>(byte)) % kModulus;
      b_ = (b_ + a_) % kModulus;
    }
  }
  std::uint32_t value() const { return b_ << 16 | a_; }

 private:
  static constexpr std::uint32_t kModulus = 65'521;
  std::uint32_t a_ = 1;
  std::uint32_t b_ = 0;
};

// "LENGTH CHECKSUM" of the body. The file of a connection's last request is the host's to remove.
std::shared_ptr<VELResponse> measureBody(const VELRequest& request) {
  Adler32 sum;
  if (const auto& file = request.bodyFileURL()) {
    const std::string path = file->filePath();
    std::ifstream body(path, std::ios::binary);
    std::vector<char> piece(65'536);
    while (body.read(piece.data(), static_cast<std::streamsize>(piece.size())) ||
           body.gcount() > 0) {
      sum.add({piece.data(), static_cast<std::size_t>(body.gcount())});
    }
    unlink(path.c_str());
  } else if (const auto& data = request.bodyData()) {
    sum.add(data->view());
  }
  return text(std::to_string(request.contentLength()) + " " + std::to_string(sum.value()));
}

using Handler = VELBlockRoute::Handler;

std::shared_ptr<VELBlockRoute> route(const char* path, Handler handler) {
  auto made = std::make_shared<VELBlockRoute>(path, false);
  made->setAllowedHTTPMethods({"GET", "POST"});
  made->setHandler(std::move(handler));
  return made;
}

void addRoutes(VELConfiguration& configuration, Later& later) {
  using Request = std::shared_ptr<VELRequest>;
  using Respond = VELResponseHandler;
  configuration.addRoute(route("/text", [](VELRoute&, const Request&, const Respond& respond) {
    respond(text("Hello, world!"));
  }));
  configuration.addRoute(route("/endless", [](VELRoute&, const Request&, const Respond& respond) {
    respond(std::make_shared<Endless>());
  }));
  configuration.addRoute(route("/chunked", [](VELRoute&, const Request&, const Respond& respond) {
    respond(std::make_shared<Chunked>());
  }));
  configuration.addRoute(
      route("/upload", [](VELRoute&, const Request& request, const Respond& respond) {
        respond(measureBody(*request));
      }));
  configuration.addRoute(
      route("/later", [&later](VELRoute&, const Request&, const Respond& respond) {
        later.call([respond] { respond(text("Later")); });
      }));
  configuration.addRoute(route("/twice", [](VELRoute&, const Request&, const Respond& respond) {
    respond(text("First"));
    respond(text("Second"));
  }));
  configuration.addRoute(route("/never", [](VELRoute&, const Request&, const Respond&) {}));
}

// Adds a route and takes it away again, on both configurations in turn.
void edit(VELConfiguration& plain, VELConfiguration& secure, int number,
          const std::atomic<bool>& ends) {
  const std::string path = "/edited" + std::to_string(number);
  for (std::uint64_t turn = 0; !ends; ++turn) {
    VELConfiguration& configuration = turn % 2 == 0 ? plain : secure;
    const auto added = route(
        path.c_str(), [](VELRoute&, const auto&, const auto& respond) { respond(text("Edited")); });
    if (turn % 4 < 2) {
      configuration.insertRoute(added, 0);
    } else {
      configuration.addRoute(added);
    }
    configuration.setValueForVariable(turn, path);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    configuration.removeRoute(added);
    configuration.setValueForVariable({}, path);
    editCount += 4;
  }
}

class Editors {
 public:
  Editors(VELConfiguration& plain, VELConfiguration& secure) {
    for (int number = 0; number < static_cast<int>(threads_.size()); ++number) {
      threads_[static_cast<std::size_t>(number)] =
          std::thread([this, &plain, &secure, number] { edit(plain, secure, number, ends_); });
    }
  }
  ~Editors() {
    ends_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  Editors(const Editors&) = delete;
  Editors& operator=(const Editors&) = delete;

 private:
  std::atomic<bool> ends_{false};
  std::array<std::thread, 4> threads_;
};

std::shared_ptr<VELServer> start(const std::shared_ptr<VELConfiguration>& configuration,
                                 const std::shared_ptr<VELEventLoops>& loops, const char* scheme) {
  auto server = std::make_shared<VELServer>(configuration, loops);
  server->setInterface("127.0.0.1");
  server->setRequestFinishedHandler([](const VELRequestSummary&) { ++requestCount; });
  VELError error;
  if (!server->start(&error)) {
    std::fprintf(stderr, "bench_soak_host: %s\n", error.description().c_str());
    std::exit(1);
  }
  std::printf("Listening on %s://127.0.0.1:%u/\n", scheme, unsigned{server->listeningPort()});
  std::fflush(stdout);
  return server;
}

std::shared_ptr<VELConfiguration> makeConfiguration(Later& later) {
  auto configuration = std::make_shared<VELConfiguration>();
  // Short, so that what these times end is gone soon after the load.
  configuration->setKeepAliveInterval(5);
  VELLimits limits;
  limits.headLineTimeout = limits.headWriteTimeout = std::chrono::seconds(10);
  configuration->setLimits(limits);
  addRoutes(*configuration, later);
  return configuration;
}

// Bytes that the program holds, without what the allocator keeps beside them.
std::size_t heapBytes() {
  const struct mallinfo2 all = mallinfo2();
  return all.uordblks + all.hblkhd;
}

// Tells the counts for each line of standard input, until a signal or its end comes.
void serveCounts(int signals, const VELServer& plain, const VELServer& secure) {
  for (;;) {
    std::array<pollfd, 2> ready{{{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    if (poll(ready.data(), ready.size(), -1) < 0) continue;
    if (ready[0].revents != 0) return;
    char line[256];
    if (read(STDIN_FILENO, line, sizeof line) <= 0) return;
    std::printf("connections=%zu requests=%llu edits=%llu log=%llu heap=%zu\n",
                plain.numberOfConnections() + secure.numberOfConnections(),
                static_cast<unsigned long long>(requestCount),
                static_cast<unsigned long long>(editCount),
                static_cast<unsigned long long>(logLineCount), heapBytes());
    std::fflush(stdout);
  }
}

// Whether the server has no connection left afterwards.
bool drain(VELServer& server) {
  const auto done = std::make_shared<std::promise<void>>();
  server.drain(kDrainLimit, [done] { done->set_value(); });
  const bool ended = done->get_future().wait_for(2 * kDrainLimit) == std::future_status::ready;
  const std::size_t left = server.numberOfConnections();
  if (!ended || left > 0) std::printf("%zu connections are left after a drain\n", left);
  return ended && left == 0;
}

int run(const char* certificate, const char* key) {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  const int signals = signalfd(-1, &ending, SFD_CLOEXEC);
  VELSetLogSink([](std::string_view) { ++logLineCount; });

  VELError error;
  const auto identity = VELIdentity::certificateListWithPEMFiles(certificate, key, &error);
  if (identity.empty()) {
    std::fprintf(stderr, "bench_soak_host: %s\n", error.description().c_str());
    return 1;
  }
  Later later;
  const auto plainConfiguration = makeConfiguration(later);
  const auto secureConfiguration = makeConfiguration(later);
  secureConfiguration->setSSLCertificates(identity);
  const auto loops = std::make_shared<VELEventLoops>();
  const auto plain = start(plainConfiguration, loops, "http");
  const auto secure = start(secureConfiguration, loops, "https");
  {
    const Editors editors(*plainConfiguration, *secureConfiguration);
    serveCounts(signals, *plain, *secure);
  }
  const bool plainIsEmpty = drain(*plain);
  return drain(*secure) && plainIsEmpty ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bench_soak_host CERTIFICATE KEY\n");
    return 2;
  }
  return bench::run(argv[1], argv[2]);
}
