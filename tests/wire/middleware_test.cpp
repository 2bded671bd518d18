// Middlewares on the wire: who is asked, in which order, and whose answer counts.
#include <mutex>

#include "support/test_server.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

/// The calls that the middlewares and the route got, in order, each followed by a comma.
class Journal {
 public:
  void add(const std::string& entry) {
    const std::lock_guard guard(mutex_);
    entries_ += entry + ",";
  }
  std::string take() {
    const std::lock_guard guard(mutex_);
    return std::exchange(entries_, {});
  }

 private:
  std::mutex mutex_;
  // Guarded by mutex_.
  std::string entries_;
};

/// Notes its calls. The query of the request says what it does: "A=answers", "A=clears", "A=mends",
/// "A=replaces".
class NotingMiddleware : public VELMiddleware {
 public:
  NotingMiddleware(std::string name, Journal& journal)
      : name_(std::move(name)), journal_(journal) {}

  std::shared_ptr<VELResponse> evaluateRequest(VELRequest& request, VELRoute&) override {
    journal_.add(name_ + " asks");
    return does(request, "answers") ? textResponse("by " + name_) : nullptr;
  }
  std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse> response,
                                                VELRequest& request) override {
    journal_.add(name_ + " answers");
    if (does(request, "clears")) return nullptr;
    return does(request, "replaces") ? textResponse("instead by " + name_) : response;
  }
  std::shared_ptr<VELResponse> evaluateError(const VELError& error, VELRequest& request) override {
    journal_.add(name_ + " error " + std::to_string(error.code()));
    return does(request, "mends") ? textResponse("mended by " + name_) : nullptr;
  }

 private:
  bool does(const VELRequest& request, const std::string& what) const {
    const auto found = request.GETParameters().find(name_);
    return found != request.GETParameters().end() && found->second == what;
  }

  const std::string name_;
  Journal& journal_;
};

struct MiddlewareCase {
  std::string request;
  int status;
  std::string body;
  std::string calls;
};

TEST(Middlewares, AreAskedInOrderAndHeardInReverse) {
  Journal journal;
  TestServer server([&journal](VELConfiguration& configuration) {
    const auto route =
        blockRoute("/route", [&journal](VELRoute&, const auto&, const auto& respond) {
          journal.add("route");
          respond(textResponse("by the route"));
        });
    route->setAllowedHTTPMethods({"GET", "TRACE"});
    configuration.addRoute(route);
    configuration.addRoute(
        blockRoute("/fails", [&journal](VELRoute&, const auto&, const auto& respond) {
          journal.add("route");
          respond(nullptr, VELError("CaseErrorDomain", 7));
        }));
    for (const std::string name : {"A", "B", "C"}) {
      configuration.addMiddleware(std::make_shared<NotingMiddleware>(name, journal));
    }
  });
  const std::string asked = "A asks,B asks,C asks,";
  const std::string traced = head({"TRACE /fails HTTP/1.1"});
  const std::vector<MiddlewareCase> cases = {
      {"GET /route", 200, "by the route", asked + "route,C answers,B answers,A answers,"},
      {"GET /route?B=answers", 200, "by B", "A asks,B asks,B answers,A answers,"},
      {"GET /route?B=replaces", 200, "instead by B",
       asked + "route,C answers,B answers,A answers,"},
      {"GET /route?B=clears", 404, "", asked + "route,C answers,B answers,"},
      {"GET /fails", 500, "", asked + "route,C error 7,B error 7,A error 7,"},
      {"GET /fails?B=mends", 200, "mended by B", asked + "route,C error 7,B error 7,A answers,"},
      {"GET /fails?C=mends&B=clears&A=mends", 200, "mended by A",
       asked + "route,C error 7,B answers,A error 7,"},
      {"DELETE /route", 405, "", asked + "C answers,B answers,A answers,"},
      {"DELETE /route?A=answers", 200, "by A", "A asks,A answers,"},
      // What is answered in the route's place is none of theirs.
      {"OPTIONS /route", 204, "", ""},
      {"TRACE /fails", 200, traced, ""},
      {"TRACE /route", 200, "by the route", asked + "route,C answers,B answers,A answers,"},
      {"GET /nowhere", 404, "", ""},
  };
  const auto client = server.connect();
  for (const MiddlewareCase& expected : cases) {
    SCOPED_TRACE(expected.request);
    const Answer answer = client->exchange(head({expected.request + " HTTP/1.1"}));
    EXPECT_EQ(answer.status, expected.status);
    EXPECT_EQ(answer.body, expected.body);
    EXPECT_EQ(journal.take(), expected.calls);
  }
}

}  // namespace
}  // namespace vel::test
