// Where proxied requests go, and where redirects send them next.
#include "routes/upstream_location.h"

#include <gtest/gtest.h>

#include "platform/redirect.h"

namespace vel::test {
namespace {

TEST(UpstreamLocation, JoinsBaseRemainderAndQuery) {
  struct Case {
    const char* base;
    const char* remainder;
    const char* requested;
    const char* expected;  // none: not to be answered
  };
  const Case cases[] = {
      {"http://h:8080/base", "users", "/api/users?id=3", "http://h:8080/base/users?id=3"},
      {"http://h/base/?old=1#f", "", "/api", "http://h/base/"},
      {"http://h/base//x/", "a//b/", "/", "http://h/base/x/a/b"},
      {"http://h", "", "/", "http://h/"},
      {"http://h?q", "a//b", "/", "http://h/a//b"},
      {"https://u:p@[::1]:1/", "a b?#%", "/", "https://u:p@[::1]:1/a%20b%3F%23%25"},
      {"http://h/a%2Fb", "\xC3\xBC", "/", "http://h/a/b/%C3%BC"},
      {"http://h/b", "x", "/x?a=1&a=%26%3D%20%2B+&b=&c&&%FF%zz\"?%",
       "http://h/b/x?a=1&a=%26%3D%20%2B+&b=&c&&%FF%25zz%22?%25"},
      {"http://h/b", "../secret", "/", nullptr},
      {"http://h/b", "a/../../secret", "/", nullptr},
      {"http://h/b", "a/../c", "/", "http://h/b/a/../c"},
      {"mailto:someone", "x", "/x", "mailto:someone"},
  };
  for (const Case& row : cases) {
    const auto location = upstreamLocation(*VELURL::URLWithString(row.base), row.remainder,
                                           VELURL::URLWithRequestTarget(row.requested));
    EXPECT_EQ(location ? location->absoluteString() : "none", row.expected ? row.expected : "none")
        << row.base << " " << row.remainder;
  }
}

TEST(Redirect, ChangesMethodBodyAndCredentials) {
  struct Case {
    const char* method;
    uint64_t status;
    const char* location;
    const char* expected;
  };
  const Case cases[] = {
      {"POST", 301, "http://h:80/b", "GET h:80 -body +credentials"},
      {"POST", 302, "http://h/b", "GET h -body +credentials"},
      {"PUT", 302, "http://h/b", "PUT h +body +credentials"},
      {"PATCH", 303, "https://h/b", "GET h -body -credentials"},
      {"HEAD", 303, "http://h/b", "HEAD h +body +credentials"},
      {"POST", 307, "http://other/b", "POST other +body -credentials"},
      {"DELETE", 308, "http://[::1]:9/b", "DELETE [::1]:9 +body -credentials"},
  };
  for (const Case& row : cases) {
    VELURLRequest request(*VELURL::URLWithString("http://h/a"));
    request.setMethod(row.method);
    request.setBody(VELData(std::string("x")));
    request.setValueForHTTPHeaderField("text/plain", "Content-Type");
    request.setValueForHTTPHeaderField("Basic eA==", "authorization");
    request.setValueForHTTPHeaderField("a=b", "cookie");
    redirect(&request, row.status, *VELURL::URLWithString(row.location));
    const auto has = [&](const char* field) {
      return request.valueForHTTPHeaderField(field).has_value();
    };
    EXPECT_EQ(has("Authorization"), has("Cookie"));
    EXPECT_EQ(request.body().has_value(), has("Content-Type"));
    EXPECT_EQ(request.method() + " " + *request.valueForHTTPHeaderField("Host") +
                  (request.body() ? " +body" : " -body") +
                  (has("Cookie") ? " +credentials" : " -credentials"),
              row.expected)
        << row.method << " " << row.status;
  }
}

}  // namespace
}  // namespace vel::test
