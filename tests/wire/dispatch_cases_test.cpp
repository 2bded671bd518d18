// Dispatch on the wire: which route is asked, what is answered without it, and what its handler may
// leave out.
#include "wire/wire_case.h"

namespace vel::test {
namespace {

class DispatchCases : public WireTable {};
INSTANTIATE_WIRE_TABLE(DispatchCases);

/// The answer to a request of the method and the path in `start`, for instance "GET /text".
WireCase answered(const std::string& start, int status, const std::string& body,
                  const std::vector<std::string>& fields = {}) {
  return {start, head({start + " HTTP/1.1"}), {{status, body, fields}}};
}

TEST_P(DispatchCases, TakeTheFirstRouteThatMatches) {
  const auto refused = [](const std::string& start) {
    return answered(start, 405, "", {"Content-Length: 0", "Connection: close"});
  };
  run({
      answered("GET /nowhere", 404, "", {"Content-Length: 0"}),
      answered("GET /textual/more", 200, "Hello"),
      answered("GET /first/second", 200, "first"),
      // Only the later route allows the method.
      refused("DELETE /first/second"),
      refused("POST /text"),
      refused("get /text"),
      answered("BREW /every", 200, "BREW"),
  });
}

TEST_P(DispatchCases, AnswerOptionsAndTraceInTheRoutesPlace) {
  const std::string traced = head({"TRACE /text?q HTTP/1.1", "Host: a", "x-b:  c"});
  const std::string length = "Content-Length: " + std::to_string(traced.size());
  run({
      answered("OPTIONS /text", 204, "", {"Allow: HEAD, GET", "Content-Length: 0"}),
      answered("OPTIONS /every", 204, "", {"Allow: ", "Content-Length: 0"}),
      answered("OPTIONS /nowhere", 404, ""),
      {"TRACE", traced, {{200, traced, {"Content-Type: message/http", length}}}},
      // Routes that list them.
      answered("OPTIONS /own", 200, "OPTIONS"),
      answered("TRACE /own", 200, "TRACE"),
  });
}

TEST_P(DispatchCases, AnswerWhatHandlersLeaveOpen) {
  run({
      answered("GET /nothing", 404, "", {"Content-Length: 0"}),
      answered("GET /without-handler", 404, "", {"Content-Length: 0"}),
      answered("GET /error", 500, "", {"Content-Length: 0", "Content-Type: text/plain"}),
      // The texts follow a length of 0.
      answered("GET /failure", 500, "It failed.\nIt had to.\nDo not.\n", {"Content-Length: 0"}),
      answered("GET /both", 200, "both"),
  });
}

}  // namespace
}  // namespace vel::test
