// Tests of request targets.
#include "platform/request_target.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/words.h"
#include "support/guarded_buffer.h"

namespace vel {
namespace {

using test::GuardedBuffer;
using test::words;
using Form = RequestTarget::Form;

struct Accepted {
  std::string_view target;
  Form form;
  std::string_view path;  // Decoded.
  std::string_view query = {};
  std::string_view host = {};
  std::string_view port = {};
  std::string_view scheme = {};
};

TEST(RequestTarget, SplitsWhatClientsSend) {
  const Accepted cases[] = {
      {"/", Form::kOrigin, "/"},
      {"/a/b", Form::kOrigin, "/a/b"},
      {"/a/", Form::kOrigin, "/a"},
      {"/a//", Form::kOrigin, "/a/"},
      {"//", Form::kOrigin, "/"},
      {"//host/x", Form::kOrigin, "//host/x"},
      {"/a%20b", Form::kOrigin, "/a b"},
      {"/a%2F", Form::kOrigin, "/a"},
      {"/%C3%A9%ff%00", Form::kOrigin, std::string_view("/\xC3\xA9\xFF\0", 5)},
      {"/a+b", Form::kOrigin, "/a+b"},
      {"/|^{}[]\"<>\\`\xC3\xA9\xFF", Form::kOrigin, "/|^{}[]\"<>\\`\xC3\xA9\xFF"},
      {"/p?x=1&y=|%zz?", Form::kOrigin, "/p", "x=1&y=|%zz?"},
      {"/p/?", Form::kOrigin, "/p"},
      {"/p#f?x", Form::kOrigin, "/p"},
      {"/p?q#f?x", Form::kOrigin, "/p", "q"},
      {"/http://host:80/", Form::kOrigin, "/http://host:80"},
      {"*", Form::kAsterisk, "*"},
      {"http://host", Form::kAbsolute, "/", "", "host", "", "http"},
      {"http://host?x", Form::kAbsolute, "/", "x", "host", "", "http"},
      {"HTTPS://user:p@host:8443/a%41/?q", Form::kAbsolute, "/aA", "q", "host", "8443", "HTTPS"},
      {"http://[::1]:80/x", Form::kAbsolute, "/x", "", "::1", "80", "http"},
      {"http://host:/x", Form::kAbsolute, "/x", "", "host", "", "http"},
      {"host:443", Form::kAuthority, "", "", "host", "443"},
      {"[::1]:443", Form::kAuthority, "", "", "::1", "443"},
  };
  for (const Accepted& c : cases) {
    const GuardedBuffer buffer(c.target);
    RequestTarget target;
    ASSERT_TRUE(parseRequestTarget(buffer.view(), &target)) << c.target;
    std::string scratch;
    EXPECT_EQ(target.form, c.form) << c.target;
    EXPECT_EQ(decodedPath(target, &scratch), c.path) << c.target;
    EXPECT_EQ(target.query, c.query) << c.target;
    EXPECT_EQ(target.host, c.host) << c.target;
    EXPECT_EQ(target.port, c.port) << c.target;
    EXPECT_EQ(target.scheme, c.scheme) << c.target;
  }
}

TEST(RequestTarget, RefusesWhatIsNoTarget) {
  std::vector<std::string> cases = words(
      "a a/b ?x #f ** */ mailto:x host: :80 host:65536 user@host:80 host:80/x host:-1 host:+1 "
      "host:99999999999999999999 http:/x http:// http:///x http://:80/ http://host:x/ "
      "http://host:65536/ http://[::1/ http://[::1]x/ 1http://host/ /% /%4 /%4g /%g4 /a%zz?x "
      "/%%20");
  cases.emplace_back();
  for (const std::string& text : cases) {
    const GuardedBuffer buffer(text);
    RequestTarget target;
    EXPECT_FALSE(parseRequestTarget(buffer.view(), &target)) << text;
  }
}

TEST(RequestTarget, RefusesControlCharactersAnywhere) {
  for (const std::string_view around : {"/a@b", "/a?x@y", "/a#x@y", "http://h@h/", "ho@st:80"}) {
    for (int c = 0; c < 0x80; c = c == ' ' ? 0x7F : c + 1) {
      std::string text(around);
      text[text.find('@')] = static_cast<char>(c);
      RequestTarget target;
      EXPECT_FALSE(parseRequestTarget(text, &target)) << around << " " << c;
    }
  }
}

TEST(RequestTarget, DecodesOnlyWhenThereIsSomethingToDecode) {
  const std::string_view text = "/static/style.css/?v=%20";
  RequestTarget target;
  ASSERT_TRUE(parseRequestTarget(text, &target));
  std::string scratch = "untouched";
  EXPECT_EQ(decodedPath(target, &scratch).data(), text.data());
  EXPECT_EQ(scratch, "untouched");
}

}  // namespace
}  // namespace vel
