// A server whose N-th system call or allocation fails, for each N there is: one connection may suffer, and
// nothing is left of it.
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "corvane/file_route.h"
#include "platform/clock.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/socket_peer.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"
#include "wire/case_routes.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

struct FaultCase {
  std::string name;
  Fault kind;
  int error;
};

class ServerWithFaults : public ::testing::TestWithParam<Transport> {
 protected:
  ServerWithFaults() {
    std::ofstream(files_.path("small")) << std::string(10'000, 's');
    std::ofstream(files_.path("large")) << std::string(300'000, 'l');
    fileOfLength(600'000);  // made outside of the directory that is counted
    ::setenv("TMPDIR", directory_.path().c_str(), 1);
  }
  ~ServerWithFaults() override { ::unsetenv("TMPDIR"); }

  /// Everything that a connection does: short and long answers, bodies in memory and in a file.
  static std::string requests() {
    const std::string body(100'000, 'b');
    const std::string chunk = "4e20\r\n" + std::string(20'000, 'c') + "\r\n";
    return head({"GET /text HTTP/1.1"}) + head({"GET /responses/data-large HTTP/1.1"}) +
           head({"POST /describe HTTP/1.1", "Content-Length: 3"}) + "abc" +
           head({"POST /describe HTTP/1.1", "Content-Length: 100000"}) + body +
           head({"PUT /describe HTTP/1.1", "Transfer-Encoding: chunked"}) + chunk + chunk + chunk +
           chunk + "0\r\n\r\n" + head({"GET /responses/file-600000 HTTP/1.1"}) +
           head({"GET /files/small HTTP/1.1"}) + head({"GET /files/large HTTP/1.1"}) +
           head({"GET /text HTTP/1.1", "Connection: close"});
  }

  /// Has a client send all that, and read what comes until the end, whatever it is.
  size_t visit() {
    try {
      const auto client = server_.connect();
      client->send(requests());
      return client->readToEnd().size();
    } catch (const std::exception&) {
      return 0;  // the handshake failed
    }
  }

  void expectNothingIsLeft(size_t descriptors) {
    EXPECT_TRUE(TestServer::isServed(*server_.connect()));
    EXPECT_TRUE(server_.waitForConnections(0));
    // A connection that lingers has left the server's set already, and files are kept open for a moment.
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (openDescriptorCount() > descriptors && std::chrono::steady_clock::now() < limit) {
      advanceClock(std::chrono::seconds(1));
      EXPECT_TRUE(TestServer::isServed(*server_.connect()));
      EXPECT_TRUE(server_.waitForConnections(0));
    }
    EXPECT_LE(openDescriptorCount(), descriptors);
    // The upload of a connection's last request stays for the host; there is never more than one.
    size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory_.path())) {
      if (!entry.is_regular_file()) continue;
      ++files;
      std::filesystem::remove(entry.path());
    }
    EXPECT_LE(files, 1U);
  }

  const LogCapture log_;
  TemporaryDirectory directory_;
  const TemporaryDirectory files_;
  TestServer server_{{.transport = GetParam()}, [this](VELConfiguration& configuration) {
                       VELLimits limits;
                       limits.bodyInMemory = 50'000;
                       limits.bodyPiece = 100'000;
                       configuration.setLimits(limits);
                       addCaseRoutes(configuration);
                       configuration.addRoute(VELFileRoute::routeWithPath(
                           "/files", VELURL::fileURLWithPath(files_.path())));
                     }};
};
INSTANTIATE_TEST_SUITE_P(, ServerWithFaults, ::testing::Values(Transport::kTCP, Transport::kTLS),
                         [](const auto& suite) { return transportName(suite.param); });

TEST_P(ServerWithFaults, LosesAtMostOneConnection) {
  const std::vector<FaultCase> cases = {
      {"receive", Fault::kReceive, ECONNRESET},
      {"send", Fault::kSend, EPIPE},
      {"send, no memory", Fault::kSend, ENOBUFS},
      {"accept", Fault::kAccept, EMFILE},
      {"accept, gone", Fault::kAccept, ECONNABORTED},
      {"watch", Fault::kWatch, ENOSPC},
      {"open", Fault::kOpen, EACCES},
      {"write", Fault::kWrite, ENOSPC},
      {"allocate", Fault::kAllocation, ENOMEM},
  };
  // The root of the files stays open from the first of them on.
  const size_t descriptors = openDescriptorCount() + 1;
  const size_t whole = visit();
  ASSERT_GT(whole, 1'900'000U);
  EXPECT_TRUE(server_.waitForConnections(0));
  expectNothingIsLeft(descriptors);
  for (const FaultCase& fault : cases) {
    int strikes = 0;
    for (bool has_struck = true; has_struck; strikes += has_struck ? 1 : 0) {
      const int nth = strikes + 1;
      SCOPED_TRACE(fault.name + " " + std::to_string(nth));
      size_t received = 0;
      {
        const ArmedFault armed(fault.kind, nth, fault.error);
        received = visit();
        EXPECT_TRUE(server_.waitForConnections(0));
        has_struck = armed.hasStruck();
      }
      expectNothingIsLeft(descriptors);
      ASSERT_FALSE(HasFailure());
      if (!has_struck) {
        EXPECT_EQ(received, whole) << "nothing failed, and not all came";
      }
    }
    EXPECT_GT(strikes, 0) << fault.name;
  }
}

}  // namespace
}  // namespace vel::test
