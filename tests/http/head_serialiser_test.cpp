// Heads on the wire.
#include "http/head_serialiser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http/message_head.h"
#include "support/guarded_buffer.h"
#include "support/log_capture.h"

namespace vel {
namespace {

/// What the builder writes, checked to be exactly as long as it said.
std::string written(const ResponseHeadBuilder& head) {
  const test::GuardedBuffer out(std::string(head.size(), '?'));
  EXPECT_EQ(head.writeTo(out.data()), out.data() + out.size());
  return std::string(out.view());
}

TEST(ResponseHeadBuilder, WritesFieldsInTheirOrder) {
  ResponseHeadBuilder head(200);
  head.setContentLength(UINT64_MAX);
  head.setOwnField("Date", "now");
  head.setOwnField("X", "");
  EXPECT_EQ(written(head),
            "HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551615\r\nDate: now\r\nX: \r\n\r\n");
}

TEST(ResponseHeadBuilder, LetsFieldsOfHostsReplaceItsOwn) {
  ResponseHeadBuilder head(200);
  head.setContentLength(13);
  head.setOwnField("Date", "now");
  const std::vector<VELHeaderField> fields = {
      {"X-First", "1"}, {"content-length", "7"}, {"DATE", "then"}, {"x-first", "22"}};
  head.setFields(fields);
  EXPECT_EQ(head.field("Content-Length"), "7");
  EXPECT_EQ(head.field("Age"), std::nullopt);
  EXPECT_EQ(written(head),
            "HTTP/1.1 200 OK\r\ncontent-length: 7\r\nDATE: then\r\nx-first: 22\r\n\r\n");
}

TEST(ResponseHeadBuilder, WritesMoreFieldsThanItHasRoomForInside) {
  std::vector<VELHeaderField> fields;
  std::string expected = "HTTP/1.1 204 No Content\r\n";
  for (int i = 0; i < 50; ++i) {
    fields.push_back({"N" + std::to_string(i), std::string(static_cast<size_t>(i), 'v')});
    expected += fields.back().name + ": " + fields.back().value + "\r\n";
  }
  ResponseHeadBuilder head(204);
  head.setFields(fields);
  EXPECT_EQ(written(head), expected + "\r\n");
  std::string appended = "before";
  head.appendTo(&appended);
  EXPECT_EQ(appended, "before" + expected + "\r\n");
  EXPECT_EQ(head.data().string(), expected + "\r\n");
}

TEST(ResponseHeadBuilder, KeepsLineEndsOffTheWire) {
  const test::LogCapture log;
  ResponseHeadBuilder head(200, "Fine\r\nSet-Cookie: evil=1");
  const std::string nul_value("a\0b", 3);
  head.setField("A", "x\r\nSet-Cookie: evil=1\r\n\r\nbody");
  head.setField("B", nul_value);
  head.setField("C", "tab\tand \xC3\xA4 stay");
  head.setField("Evil: 1\r\nD", "x");
  head.setField("", "x");
  EXPECT_EQ(
      written(head),
      "HTTP/1.1 200 Fine  Set-Cookie: evil=1\r\nA: x  Set-Cookie: evil=1    body\r\nB: a b\r\n"
      "C: tab\tand \xC3\xA4 stay\r\n\r\n");
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST(ResponseHeadBuilder, WritesAnyStatus) {
  EXPECT_EQ(written(ResponseHeadBuilder(299)), "HTTP/1.1 299 \r\n\r\n");
  EXPECT_EQ(written(ResponseHeadBuilder(0, "Zero")), "HTTP/1.1 0 Zero\r\n\r\n");
  EXPECT_EQ(written(ResponseHeadBuilder(UINT64_MAX)), "HTTP/1.1 18446744073709551615 \r\n\r\n");
  EXPECT_EQ(written(ResponseHeadBuilder(404, "")), "HTTP/1.1 404 \r\n\r\n");
}

TEST(HeadSerialiser, RepeatsAReceivedHeadAsItCame) {
  const std::string lines[] = {"TRACE /x?y HTTP/1.0\r\n", "b:1\r\n", "A:  2 \r\n", "b: 3\n", "\n"};
  MessageHead head;
  for (const std::string& line : lines) head.appendLine(line);
  ASSERT_TRUE(head.isComplete());
  EXPECT_EQ(serialised(head), "TRACE /x?y HTTP/1.0\r\nb:1\r\nA:  2 \r\nb: 3\r\n\r\n");
  head.setField("4", "B");
  EXPECT_EQ(serialised(head), "TRACE /x?y HTTP/1.0\r\nb: 4\r\nA: 2\r\n\r\n");
}

TEST(HeadSerialiser, WritesBuiltHeads) {
  MessageHead head;
  EXPECT_EQ(serialised(head), "");
  head.setRequest("GET\r\n", "/a\rb", "HTTP/1.1");
  EXPECT_EQ(serialised(head), "GET   /a b HTTP/1.1\r\n\r\n");
  head.setResponse(404, std::nullopt, "HTTP/1.1");
  head.setField("0", "Content-Length");
  EXPECT_EQ(serialised(head), "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  head.setResponse(-7, "a\nb", "HTTP/1.0");
  EXPECT_EQ(serialised(head), "HTTP/1.0 -7 a b\r\n\r\n");
}

}  // namespace
}  // namespace vel
