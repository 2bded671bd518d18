// The public message: what hosts and handshakes see of heads.
#include "corvane/http_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "corvane/error.h"

namespace {

TEST(HTTPMessage, HasNoPlainInitialiser) {
  EXPECT_THAT([] { VELHTTPMessage(); },
              testing::ThrowsMessage<VELException>(
                  "NSInvalidArgumentException: HTTP messages must be initialized with one of the "
                  "designated initializers"));
}

TEST(HTTPMessage, ParsesARequest) {
  VELHTTPMessage message = VELHTTPMessage::emptyRequest();
  EXPECT_TRUE(message.isRequest());
  EXPECT_EQ(message.URL(), std::nullopt);
  EXPECT_TRUE(message.appendData("PUT /a%20b/?q=1 HTTP/1.1\r\ncontent-length: 4\r\nX: 1\r\n"));
  EXPECT_FALSE(message.isHeaderComplete());
  EXPECT_TRUE(message.appendData("\r\nbo"));
  EXPECT_TRUE(message.appendData("dy"));
  EXPECT_TRUE(message.isHeaderComplete());
  EXPECT_EQ(message.method(), "PUT");
  EXPECT_EQ(message.version(), VELHTTPVersion1_1);
  EXPECT_EQ(message.URL()->path(), "/a b");
  EXPECT_EQ(message["Content-Length"], "4");
  EXPECT_EQ(message.headers().size(), 2U);
  EXPECT_EQ(message.statusCode(), 0);
  EXPECT_EQ(message.body().string(), "body");
  EXPECT_EQ(message.messageData().string(),
            "PUT /a%20b/?q=1 HTTP/1.1\r\ncontent-length: 4\r\nX: 1\r\n\r\nbody");
  EXPECT_THAT(message.description(),
              testing::MatchesRegex("<VELHTTPMessage: 0x[0-9a-f]+> \\{ method=\"PUT\", "
                                    "URL=\"/a%20b/\\?q=1\" \\}"));
}

TEST(HTTPMessage, AStatusLineMakesAResponse) {
  VELHTTPMessage message = VELHTTPMessage::emptyRequest();
  EXPECT_TRUE(message.appendData("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n"));
  EXPECT_FALSE(message.isRequest());
  EXPECT_EQ(message.statusCode(), 101);
  EXPECT_EQ(message.URL(), std::nullopt);
  EXPECT_EQ(message.valueForHeaderField("upgrade"), "websocket");
  EXPECT_THAT(message.description(),
              testing::MatchesRegex("<VELHTTPMessage: 0x[0-9a-f]+> \\{ status=\"101\" \\}"));
}

TEST(HTTPMessage, RefusesMalformedBytesForGood) {
  VELHTTPMessage message = VELHTTPMessage::emptyRequest();
  EXPECT_TRUE(message.appendData("GET /"));
  EXPECT_FALSE(message.appendData("\r\n"));
  EXPECT_FALSE(message.appendData("GET / HTTP/1.1\r\n"));
}

TEST(HTTPMessage, WritesTheRequestLineOfAURL) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://host:8080/a%20b?q=1#f", "/a%20b?q=1"},
      {"ws://host", "/"},
      {"https://host?q", "/?q"},
      {"/plain?q", "/plain?q"},
  };
  for (const auto& [text, target] : cases) {
    const VELURL url = *VELURL::URLWithString(text);
    const VELHTTPMessage message = VELHTTPMessage::request("GET", url, "HTTP/1.1");
    EXPECT_TRUE(message.isRequest());
    EXPECT_TRUE(message.isHeaderComplete());
    EXPECT_EQ(message.URL(), url);
    EXPECT_EQ(message.messageData().string(), "GET " + std::string(target) + " HTTP/1.1\r\n\r\n");
  }
}

TEST(HTTPMessage, BuildsResponses) {
  VELHTTPMessage message = VELHTTPMessage::response(404, "Gone", "HTTP/1.1");
  message.setValueForHeaderField("1", "Content-Length");
  message.setObjectForKeyedSubscript("0", "CONTENT-LENGTH");
  message.setBody(VELData(std::string("body")));
  EXPECT_EQ(message.messageData().string(), "HTTP/1.1 404 Gone\r\nContent-Length: 0\r\n\r\nbody");
}

TEST(HTTPMessage, WritesStatusCodesWithThreeDigits) {
  VELHTTPMessage message = VELHTTPMessage::emptyRequest();
  message.appendData("HTTP/1.1 007 Low\r\n\r\n");
  message.setValueForHeaderField("1", "A");
  EXPECT_EQ(message.messageData().string(), "HTTP/1.1 007 Low\r\nA: 1\r\n\r\n");
}

TEST(HTTPMessage, CopiesAreIndependent) {
  VELHTTPMessage source = VELHTTPMessage::emptyRequest();
  source.appendData("GET / HTTP/1.1\r\nA: 1\r\nPart");
  VELHTTPMessage copy = source.copy();
  copy.setValueForHeaderField("2", "A");
  EXPECT_EQ(source["a"], "1");
  EXPECT_EQ(copy["a"], "2");
  for (VELHTTPMessage* message : {&source, &copy}) {
    EXPECT_TRUE(message->appendData("ial: 3\r\n\r\n"));
    EXPECT_EQ((*message)["Partial"], "3");
  }
}

TEST(HTTPMessage, KnowsReasonPhrases) {
  const std::pair<int64_t, std::string_view> cases[] = {{-200, ""},
                                                        {99, ""},
                                                        {100, "Continue"},
                                                        {206, "Partial Content"},
                                                        {304, "Not Modified"},
                                                        {306, ""},
                                                        {416, "Range Not Satisfiable"},
                                                        {418, ""},
                                                        {511, "Network Authentication Required"},
                                                        {512, ""}};
  for (const auto& [code, phrase] : cases) EXPECT_EQ(VELReasonPhrase(code), phrase) << code;
}

}  // namespace
