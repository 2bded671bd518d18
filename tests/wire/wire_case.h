// Cases as data: the bytes that a client sends, and what it must see. Each table runs over every
// transport.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "support/test_server.h"

namespace vel::test {

struct ExpectedAnswer {
  int status;
  /// The bytes after the head, framing included, whatever the head says.
  std::string body = {};
  /// Field lines that the head must have.
  std::vector<std::string> fields = {};
  /// Names of fields that it must not have.
  std::vector<std::string> absent = {};
};

/// How the connection stands after the last answer. A stranded one closes as soon as the client asks for
/// more.
enum class After { kOpen, kClosed, kStranded };

struct WireCase {
  std::string name;
  std::string sent;
  std::vector<ExpectedAnswer> answers = {};
  After after = After::kOpen;
};

/// The lines of a head, each ended by CR LF, and the empty line.
std::string head(std::initializer_list<std::string_view> lines);
/// "X-0: 0" and so on, each ended by CR LF.
std::string numberedFields(size_t count);

/// Runs tables against a server with the routes of case_routes.h.
class WireTable : public ::testing::TestWithParam<Transport> {
 protected:
  /// Each case has a connection of its own. Another one must not notice any of them.
  void run(const std::vector<WireCase>& cases);
};

#define INSTANTIATE_WIRE_TABLE(Suite)                                             \
  INSTANTIATE_TEST_SUITE_P(                                                       \
      , Suite,                                                                    \
      ::testing::Values(Transport::kTCP, Transport::kTLS, Transport::kMemory,     \
                        Transport::kMemoryByBytes, Transport::kMemoryTLSByBytes), \
      [](const auto& suite) { return transportName(suite.param); })

}  // namespace vel::test
