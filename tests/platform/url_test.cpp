// Tests of VELURL.
#include "corvane/url.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

struct Components {
  std::string_view text;
  std::string_view scheme;
  std::string_view host;
  std::optional<uint16_t> port;
  std::string_view path;
  std::optional<std::string> query;
  std::optional<std::string> fragment;
};

TEST(URL, SplitsIntoComponents) {
  const Components cases[] = {
      {"http://example.com", "http", "example.com", {}, "", {}, {}},
      {"http://example.com/", "http", "example.com", {}, "/", {}, {}},
      {"https://u:p@example.com:8443/a%20b/c.txt/?q=%20#f%20", "https", "example.com", 8443,
       "/a b/c.txt", "q=%20", "f%20"},
      {"http://[2001:db8::1]:80/?", "http", "2001:db8::1", 80, "/", "", {}},
      {"http://h/a?b?c#d#e", "http", "h", {}, "/a", "b?c", "d#e"},
      {"//host/x", "", "host", {}, "/x", {}, {}},
      {"/a/b/", "", "", {}, "/a/b", {}, {}},
      {"a/b:c", "", "", {}, "a/b:c", {}, {}},
      {"?x=1", "", "", {}, "", "x=1", {}},
      {"mailto:a@b", "mailto", "", {}, "a@b", {}, {}},
      {"file:///tmp/%C3%A9", "file", "", {}, "/tmp/\xC3\xA9", {}, {}},
      {"ws://h:1/|^{}", "ws", "h", 1, "/|^{}", {}, {}},
  };
  for (const Components& c : cases) {
    const std::optional<VELURL> url = VELURL::URLWithString(c.text);
    ASSERT_TRUE(url) << c.text;
    EXPECT_EQ(url->absoluteString(), c.text);
    EXPECT_EQ(url->scheme(), c.scheme) << c.text;
    EXPECT_EQ(url->host(), c.host) << c.text;
    EXPECT_EQ(url->port(), c.port) << c.text;
    EXPECT_EQ(url->path(), c.path) << c.text;
    EXPECT_EQ(url->query(), c.query) << c.text;
    EXPECT_EQ(url->fragment(), c.fragment) << c.text;
  }
}

TEST(URL, RefusesMalformedText) {
  for (const char* text : {"", "http://h/a b", "/a\nb", "/%zz", "http://h:x/", "http://h:65536/",
                           "http://[::1/", "/a?b c", "/a#\x7F"}) {
    EXPECT_FALSE(VELURL::URLWithString(text)) << text;
  }
}

TEST(URL, RequestTargetsKeepTheirDoubleSlashAndTheirRoot) {
  EXPECT_EQ(VELURL::URLWithRequestTarget("//host/x")->path(), "//host/x");
  EXPECT_EQ(VELURL::URLWithRequestTarget("//host/x")->host(), "");
  EXPECT_EQ(VELURL::URLWithRequestTarget("http://h")->path(), "/");
  EXPECT_EQ(VELURL::URLWithRequestTarget("*")->path(), "*");
  EXPECT_FALSE(VELURL::URLWithRequestTarget("relative"));
  const VELURL appended = VELURL::URLWithRequestTarget("//a?x")->URLByAppendingPathComponent("b");
  EXPECT_EQ(appended.path(), "//a/b");
}

TEST(URL, NamesTheLastPartAndItsExtension) {
  const struct {
    std::string_view text;
    std::string_view last;
    std::string_view extension;
  } cases[] = {
      {"/a/photo.JPG", "photo.JPG", "JPG"},
      {"/archive.tar.gz?x=.y", "archive.tar.gz", "gz"},
      {"/.bashrc", ".bashrc", ""},
      {"/a.b/c", "c", ""},
      {"/a.", "a.", ""},
      {"/", "/", ""},
      {"/dir.d/", "dir.d", "d"},
      {"http://h.com", "", ""},
      {"/a%2Eb", "a.b", "b"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(VELURL::URLWithString(c.text)->lastPathComponent(), c.last) << c.text;
    EXPECT_EQ(VELURL::URLWithString(c.text)->pathExtension(), c.extension) << c.text;
  }
}

TEST(URL, QueryItemsKeepOrderAndAbsentValues) {
  const std::vector<VELURLQueryItem> expected = {
      {"a", "1"}, {"b", std::nullopt}, {"", std::nullopt}, {"a", ""}, {"c d", "e+f=g"}};
  EXPECT_EQ(VELURL::URLWithString("/?a=1&b&&a=&c%20d=e+f=g#x=y")->queryItems(), expected);
  EXPECT_TRUE(VELURL::URLWithString("/?")->queryItems().empty());
  EXPECT_TRUE(VELURL().queryItems().empty());
}

TEST(URL, FilePathsSurviveTheirWayThroughAURL) {
  for (const std::string_view path : {"/tmp/a b%20?#c", "/\xC3\xA9\xFF/[x]", "/", "//x:y"}) {
    const VELURL url = VELURL::fileURLWithPath(path);
    EXPECT_TRUE(url.isFileURL());
    EXPECT_EQ(url.filePath(), path);
    EXPECT_FALSE(url.query());
  }
  const std::string current = std::filesystem::current_path().string();
  EXPECT_EQ(VELURL::fileURLWithPath("x").filePath(), current + "/x");
  EXPECT_EQ(VELURL::URLWithString("http://h/x")->filePath(), "");
  const VELURL directory = VELURL::fileURLWithPath("/tmp/dir/");
  EXPECT_EQ(directory.URLByAppendingPathComponent("100% #1").filePath(), "/tmp/dir/100% #1");
}

TEST(URL, AnAppendedComponentIsNeverAHost) {
  for (const std::string_view text : {"file://", "h://", "//", "http:", "/", "http:///?q"}) {
    const VELURL url = VELURL::URLWithString(text)->URLByAppendingPathComponent("etc");
    EXPECT_EQ(url.host(), "") << text;
    EXPECT_EQ(url.path(), "/etc") << text;
  }
}

}  // namespace
