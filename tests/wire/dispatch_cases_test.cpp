// Dispatch on the wire: which route is asked, what is answered without it, and what its handler may
// leave out.
#include "wire/wire_case.h"

namespace vel::test {
namespace {

class DispatchCases : public WireTable {};
INSTANTIATE_WIRE_TABLE(DispatchCases);

std::string request(const std::string& method, const std::string& path) {
  return head({method + " " + path + " HTTP/1.1"});
}

TEST_P(DispatchCases, TakeTheFirstRouteThatMatches) {
  const ExpectedAnswer refused = {405, "", {"Content-Length: 0", "Connection: close"}};
  run({
      {"nothing matches", request("GET", "/nowhere"), {{404, "", {"Content-Length: 0"}}}},
      {"a prefix matches", request("GET", "/textual/more"), {{200, "Hello"}}},
      {"the earlier route", request("GET", "/first/second"), {{200, "first"}}},
      {"the earlier route although only the later one allows the method",
       request("DELETE", "/first/second"),
       {refused}},
      {"no method but the listed ones", request("POST", "/text"), {refused}},
      {"methods are compared exactly", request("get", "/text"), {refused}},
      {"every method where there is no list", request("BREW", "/every"), {{200, "BREW"}}},
  });
}

TEST_P(DispatchCases, AnswerOptionsAndTraceInTheRoutesPlace) {
  const std::string traced = head({"TRACE /text?q HTTP/1.1", "Host: a", "x-b:  c"});
  run({
      {"OPTIONS with a list",
       request("OPTIONS", "/text"),
       {{204, "", {"Allow: HEAD, GET", "Content-Length: 0"}}}},
      {"OPTIONS without a list",
       request("OPTIONS", "/every"),
       {{204, "", {"Allow: ", "Content-Length: 0"}}}},
      {"OPTIONS that the route lists", request("OPTIONS", "/own"), {{200, "OPTIONS"}}},
      {"OPTIONS without a route", request("OPTIONS", "/nowhere"), {{404, ""}}},
      {"TRACE that the route lists", request("TRACE", "/own"), {{200, "TRACE"}}},
      {"TRACE",
       traced,
       {{200,
         traced,
         {"Content-Type: message/http", "Content-Length: " + std::to_string(traced.size())}}}},
  });
}

TEST_P(DispatchCases, AnswerWhatHandlersLeaveOpen) {
  run({
      {"neither response nor error",
       request("GET", "/nothing"),
       {{404, "", {"Content-Length: 0"}}}},
      {"no handler", request("GET", "/without-handler"), {{404, "", {"Content-Length: 0"}}}},
      {"an error without texts",
       request("GET", "/error"),
       {{500, "", {"Content-Length: 0", "Content-Type: text/plain"}}}},
      {"an error with texts, which follow a length of 0",
       request("GET", "/failure"),
       {{500, "It failed.\nIt had to.\nDo not.\n", {"Content-Length: 0"}}}},
      {"a response and an error", request("GET", "/both"), {{200, "both"}}},
  });
}

}  // namespace
}  // namespace vel::test
