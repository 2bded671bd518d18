// Running a table: send, compare answer by answer, look at how the connection stands.
#include "wire/wire_case.h"

#include <gmock/gmock.h>

#include <exception>

#include "wire/case_routes.h"

namespace vel::test {
namespace {

void expectAnswer(WireClient& client, const ExpectedAnswer& expected) {
  const AnswerHead head = client.readHead();
  EXPECT_EQ(head.version, "HTTP/1.1");
  EXPECT_EQ(head.status, expected.status);
  for (const std::string& field : expected.fields) {
    EXPECT_THAT(head.fields, ::testing::Contains(field));
  }
  for (const std::string& name : expected.absent) EXPECT_EQ(head.value(name), std::nullopt);
  EXPECT_EQ(client.readBytes(expected.body.size()), expected.body);
}

// Cases up to this size are cut everywhere.
constexpr size_t kMostCut = 1000;

// Sends the case in two pieces, the first of which ends at `cut`.
void runCase(TestServer& server, const WireCase& wire_case, size_t cut) {
  const auto client = server.connect();
  client->send(wire_case.sent.substr(0, cut));
  client->send(wire_case.sent.substr(cut));
  for (const ExpectedAnswer& expected : wire_case.answers) expectAnswer(*client, expected);
  if (wire_case.after == After::kOpen) {
    EXPECT_TRUE(TestServer::isServed(*client)) << "the connection is not served any more";
  } else {
    if (wire_case.after == After::kStranded) {
      client->send(head({"GET /text HTTP/1.1"}));
    }
    EXPECT_EQ(client->readToEnd(), "");
  }
}

}  // namespace

std::string head(std::initializer_list<std::string_view> lines) {
  std::string bytes;
  for (const std::string_view line : lines) {
    bytes += line;
    bytes += "\r\n";
  }
  return bytes + "\r\n";
}

std::string numberedFields(size_t count) {
  std::string bytes;
  for (size_t index = 0; index < count; ++index) {
    const std::string number = std::to_string(index);
    bytes += "X-" + number + ": " + number + "\r\n";
  }
  return bytes;
}

void WireTable::run(const std::vector<WireCase>& cases) {
  TestServer server({.transport = GetParam()}, addCaseRoutes);
  const auto bystander = server.connect();
  for (const WireCase& wire_case : cases) {
    const bool is_cut = GetParam() == Transport::kMemory && wire_case.sent.size() <= kMostCut;
    for (size_t cut = 0; cut < (is_cut ? wire_case.sent.size() : 1); ++cut) {
      SCOPED_TRACE(wire_case.name + ", cut at " + std::to_string(cut));
      try {
        runCase(server, wire_case, cut);
      } catch (const std::exception& exception) {
        ADD_FAILURE() << exception.what();
      }
    }
    EXPECT_TRUE(TestServer::isServed(*bystander));
  }
}

}  // namespace vel::test
