// How a connection has requests answered: dispatch, middlewares, the response handler, error
// answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "corvane/middleware.h"
#include "corvane/responses.h"
#include "support/fake_connection.h"
#include "support/log_capture.h"
#include "support/scripted_response.h"

namespace vel::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kGet[] = "GET / HTTP/1.1\r\n\r\n";

std::string statusOf(const std::string& answer) { return answer.substr(9, 3); }

// Notes what it is asked, and answers what the test has put there.
struct Recorder : VELMiddleware {
  Recorder(std::string own_name, std::vector<std::string>* notes)
      : name(std::move(own_name)), calls(notes) {}

  std::shared_ptr<VELResponse> evaluateRequest(VELRequest&, VELRoute&) override {
    calls->push_back(name + " request");
    return instead;
  }
  std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse> response,
                                                VELRequest&) override {
    calls->push_back(name + " response " + std::to_string(response->status()));
    return clears ? nullptr : response;
  }
  std::shared_ptr<VELResponse> evaluateError(const VELError& error, VELRequest&) override {
    calls->push_back(name + " error " + std::to_string(error.code()));
    return onError;
  }

  std::string name;
  std::vector<std::string>* calls;
  std::shared_ptr<VELResponse> instead;
  std::shared_ptr<VELResponse> onError;
  bool clears = false;
};

struct Middlewares {
  std::vector<std::string> calls;
  std::shared_ptr<Recorder> first = std::make_shared<Recorder>("first", &calls);
  std::shared_ptr<Recorder> second = std::make_shared<Recorder>("second", &calls);

  std::shared_ptr<VELConfiguration> around(Handler handler,
                                           std::vector<std::string> methods = {"GET"}) {
    return configurationWith({routeFor("/", std::move(handler), std::move(methods))},
                             {first, second});
  }
};

TEST(Dispatch, AnswersOptionsAndTraceWithoutMiddlewaresAndRoute) {
  Middlewares middlewares;
  FakeConnection fake(middlewares.around(answeringWith("routed"), {"GET", "POST"}));
  EXPECT_EQ(fake.answerTo("OPTIONS / HTTP/1.1\r\n\r\n"),
            "HTTP/1.1 204 No Content\r\nContent-Length: 0\r\nAccept-Ranges: bytes\r\n"
            "Allow: GET, POST\r\n\r\n");
  const std::string trace = "TRACE /a?b HTTP/1.1\r\nHost:  x\r\n\r\n";
  const std::string answer = fake.answerTo(trace);
  EXPECT_EQ(statusOf(answer), "200");
  EXPECT_THAT(answer, HasSubstr("Content-Type: message/http\r\n"));
  EXPECT_EQ(answer.substr(answer.find("\r\n\r\n") + 4), trace);
  EXPECT_THAT(middlewares.calls, IsEmpty());
}

TEST(Dispatch, LeavesOptionsAndTraceToARouteThatTakesThem) {
  Middlewares middlewares;
  FakeConnection fake(middlewares.around(answeringWith("routed"), {"OPTIONS", "TRACE"}));
  EXPECT_THAT(fake.answerTo("OPTIONS / HTTP/1.1\r\n\r\n"), testing::EndsWith("routed"));
  EXPECT_THAT(fake.answerTo("TRACE / HTTP/1.1\r\n\r\n"), testing::EndsWith("routed"));
  EXPECT_THAT(middlewares.calls, testing::SizeIs(8));
}

struct AnyMethodRoute : VELRoute {
  using VELRoute::VELRoute;
  VELMethodList allowedHTTPMethods() const override { return nullptr; }
  void evaluateWithRequest(std::shared_ptr<VELRequest> request,
                           VELResponseHandler respond) override {
    respond(VELResponse::responseWithData(VELData(request->method()), 200));
  }
};

TEST(Dispatch, TakesEveryMethodWhereTheRouteNamesNone) {
  FakeConnection fake(configurationWith({std::make_shared<AnyMethodRoute>("/", false)}));
  EXPECT_THAT(fake.answerTo("BREW / HTTP/1.1\r\n\r\n"), testing::EndsWith("\r\n\r\nBREW"));
  EXPECT_THAT(fake.answerTo("OPTIONS / HTTP/1.1\r\n\r\n"), HasSubstr("\r\nAllow: \r\n"));
}

TEST(Dispatch, ChecksTheMethodAfterTheMiddlewares) {
  Middlewares middlewares;
  FakeConnection fake(middlewares.around(answeringWith("routed"), {"GET"}));
  EXPECT_EQ(fake.answerTo("DELETE / HTTP/1.1\r\n\r\n"),
            "HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\nAccept-Ranges: bytes\r\n"
            "Connection: close\r\n\r\n");
  EXPECT_THAT(middlewares.calls, ElementsAre("first request", "second request",
                                             "second response 405", "first response 405"));
  EXPECT_TRUE(fake.isReadingHead()) << "only the client decides about the connection";
  EXPECT_EQ(statusOf(fake.answerTo("get / HTTP/1.1\r\n\r\n")), "405");
  middlewares.second->instead = std::make_shared<VELNotAuthorizedResponse>();
  EXPECT_EQ(statusOf(fake.answerTo("DELETE / HTTP/1.1\r\n\r\n")), "401");
}

TEST(Dispatch, LetsTheFirstMatchingRouteDecideEvenIfItRefusesTheMethod) {
  FakeConnection fake(configurationWith({routeFor("/a", answeringWith("first"), {"GET"}),
                                         routeFor("/", answeringWith("second"), {"POST"})}));
  EXPECT_EQ(statusOf(fake.answerTo("POST /a HTTP/1.1\r\n\r\n")), "405");
  EXPECT_EQ(statusOf(fake.answerTo("POST /b HTTP/1.1\r\n\r\n")), "200");
}

TEST(Middlewares, SeeTheAnswerInReverseOrderUpToTheOneThatGaveIt) {
  Middlewares middlewares;
  FakeConnection fake(middlewares.around(answeringWith("routed")));
  fake.answerTo(kGet);
  EXPECT_THAT(middlewares.calls, ElementsAre("first request", "second request",
                                             "second response 200", "first response 200"));
  middlewares.calls.clear();
  middlewares.first->instead = std::make_shared<VELForbiddenResponse>();
  EXPECT_EQ(statusOf(fake.answerTo(kGet)), "403");
  EXPECT_THAT(middlewares.calls, ElementsAre("first request", "first response 403"));
}

TEST(Middlewares, MayTurnAnErrorIntoAResponseAndAResponseIntoNone) {
  Middlewares middlewares;
  FakeConnection failing(middlewares.around([](const auto&, VELResponseHandler respond) {
    respond(nullptr, VELError("test", 7, "broken"));
  }));
  EXPECT_EQ(statusOf(failing.answerTo(kGet)), "500");
  EXPECT_THAT(middlewares.calls,
              ElementsAre("first request", "second request", "second error 7", "first error 7"));
  middlewares.calls.clear();
  middlewares.second->onError = std::make_shared<VELBadRequestResponse>();
  EXPECT_EQ(statusOf(failing.answerTo(kGet)), "400");
  EXPECT_THAT(middlewares.calls, ElementsAre("first request", "second request", "second error 7",
                                             "first response 400"));
  middlewares.second->onError = nullptr;
  middlewares.second->clears = true;
  FakeConnection cleared(middlewares.around(answeringWith("routed")));
  EXPECT_EQ(statusOf(cleared.answerTo(kGet)), "404");
}

TEST(ErrorAnswers, TellTheTextsOfAnErrorBehindALengthOfNone) {
  VELError error("test", 1, "It broke.");
  error.setLocalizedRecoverySuggestion("Mend it.");
  FakeConnection fake([&](const auto&, VELResponseHandler respond) { respond(nullptr, error); });
  EXPECT_EQ(
      fake.answerTo(kGet),
      "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\nContent-Type: text/plain\r\n"
      "Accept-Ranges: bytes\r\n\r\nIt broke.\nMend it.\n");
  EXPECT_THAT(fake.socket().writeTags(), ElementsAre(90));
  EXPECT_TRUE(fake.isReadingHead());
}

TEST(ErrorAnswers, SayNotFoundWhenThereIsNeitherResponseNorError) {
  FakeConnection fake([](const auto&, VELResponseHandler respond) { respond(nullptr); });
  EXPECT_EQ(fake.answerTo(kGet),
            "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nAccept-Ranges: bytes\r\n\r\n");
}

TEST(ErrorAnswers, RefuseOtherVersionsAfterTheBodyAndStayOpen) {
  FakeConnection fake(answeringWith("x"));
  EXPECT_EQ(fake.answerTo("POST / HTTP/2.0\r\nContent-Length: 3\r\n\r\n"), "");
  EXPECT_EQ(fake.answerTo("abc"),
            "HTTP/1.1 505 HTTP Version Not Supported\r\nContent-Length: 0\r\n"
            "Accept-Ranges: bytes\r\n\r\n");
  EXPECT_EQ(statusOf(fake.answerTo(kGet)), "200");
}

TEST(ResponseHandler, AnswersOnceHoweverOftenItIsCalled) {
  const LogCapture log;
  FakeConnection fake([](const auto&, VELResponseHandler respond) {
    respond(std::make_shared<VELForbiddenResponse>());
    respond(std::make_shared<VELNotFoundResponse>());
  });
  EXPECT_EQ(statusOf(fake.answerTo(kGet)), "403");
  EXPECT_THAT(fake.socket().writeTags(), ElementsAre(90));
  EXPECT_THAT(
      log.lines(),
      ElementsAre("A response handler was called more than once; the later call is ignored"));
}

TEST(ResponseHandler, LeavesTheClientWaitingWhenItIsNeverCalled) {
  const LogCapture log;
  FakeConnection fake([](const auto&, const VELResponseHandler&) {});
  EXPECT_EQ(fake.answerTo(kGet), "");
  EXPECT_FALSE(fake.socket().wasDisconnected());
  EXPECT_FALSE(fake.isReadingHead()) << "nothing is read while a route evaluates";
  EXPECT_THAT(log.lines(),
              ElementsAre("A response handler was destroyed without having been called"));
}

TEST(ResponseHandler, AnswersFromAnyThread) {
  std::optional<VELResponseHandler> held;
  FakeConnection fake([&](const auto&, VELResponseHandler respond) { held = std::move(respond); });
  EXPECT_EQ(fake.answerTo(std::string(kGet) + kGet), "");
  for (int i = 0; i < 2; ++i) {
    std::thread([&] {
      (*std::exchange(held, std::nullopt))(std::make_shared<VELForbiddenResponse>());
    }).join();
    EXPECT_EQ(statusOf(fake.answerTo("")), "403");
  }
  EXPECT_TRUE(fake.isReadingHead());
}

TEST(ResponseHandler, MayBeCalledAfterTheConnectionHasGone) {
  std::optional<VELResponseHandler> held;
  const auto response = std::make_shared<ScriptedResponse>(std::deque<std::string>{"x"});
  {
    FakeConnection fake(
        [&](const auto&, VELResponseHandler respond) { held = std::move(respond); });
    fake.answerTo(kGet);
    fake.socket().breakOff();
    (*held)(response);
    EXPECT_EQ(fake.answerTo(""), "");
  }
  EXPECT_EQ(response->closings, 0) << "it was never taken";
}

TEST(Responses, AreToldOnceThatTheConnectionIsDoneWithThem) {
  const auto response = std::make_shared<ScriptedResponse>(std::deque<std::string>{"x", "y"});
  {
    FakeConnection fake([&](const auto&, VELResponseHandler respond) { respond(response); });
    EXPECT_THAT(fake.answerTo(kGet), testing::EndsWith("xy"));
    EXPECT_EQ(response->closings, 1);
  }
  EXPECT_EQ(response->closings, 1);
  const auto cutOff = std::make_shared<ScriptedResponse>(std::deque<std::string>{"x", "y"});
  FakeConnection fake([&](const auto&, VELResponseHandler respond) { respond(cutOff); });
  fake.socket().holdWrites(true);
  fake.answerTo(kGet);
  EXPECT_EQ(cutOff->closings, 0);
  fake.socket().breakOff();
  EXPECT_EQ(cutOff->closings, 1);
}

TEST(Responses, GoWithoutTheirBodyToHead) {
  const auto response = std::make_shared<ScriptedResponse>(std::deque<std::string>{"hello"});
  FakeConnection fake([&](const auto&, VELResponseHandler respond) { respond(response); });
  EXPECT_EQ(fake.answerTo("HEAD / HTTP/1.1\r\n\r\n"),
            "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nAccept-Ranges: bytes\r\n\r\n");
  EXPECT_THAT(response->asked_for, IsEmpty());
  EXPECT_TRUE(fake.isReadingHead());
}

TEST(Responses, ThatRunDryEndTheAnswerAndTheConnectionGoesOn) {
  FakeConnection fake([](const auto&, VELResponseHandler respond) {
    auto response = std::make_shared<ScriptedResponse>(std::deque<std::string>{}, false);
    response->setContentLength(5);
    respond(response);
  });
  // The answer is over before the route returns.
  EXPECT_EQ(statusOf(fake.answerTo(kGet)), "200");
  EXPECT_THAT(fake.socket().writeTags(), ElementsAre(21));
  EXPECT_EQ(statusOf(fake.answerTo(kGet)), "200");
}

TEST(SocketYield, EndsTheConnectionWithoutTouchingTheSocket) {
  FakeConnection fake([](const auto&, VELResponseHandler respond) {
    respond(std::make_shared<VELSocketYieldResponse>());
  });
  EXPECT_EQ(fake.server().numberOfConnections(), 1U);
  EXPECT_EQ(fake.answerTo(kGet), "");
  EXPECT_FALSE(fake.socket().wasDisconnected());
  EXPECT_EQ(fake.server().numberOfConnections(), 0U);
}

// Each case throws from another place.
TEST(Exceptions, CloseTheConnectionThatTheyComeFrom) {
  struct ThrowingResponse : ScriptedResponse {
    ThrowingResponse() : ScriptedResponse({"x"}) {}
    VELData readDataOfLength(uint64_t) override { throw std::runtime_error("oops"); }
  };
  struct ThrowingAtTheEnd : ScriptedResponse {
    ThrowingAtTheEnd() : ScriptedResponse({"x"}) {}
    void connectionDidClose() override { throw std::runtime_error("oops"); }
  };
  struct ThrowingMiddleware : VELMiddleware {
    std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse>,
                                                  VELRequest&) override {
      throw std::runtime_error("oops");
    }
  };
  struct Case {
    std::string what;
    Handler handler;
    std::vector<std::shared_ptr<VELMiddleware>> middlewares;
    bool isLogged;
  };
  for (const Case& c : std::vector<Case>{
           {"route", [](const auto&, const auto&) { throw std::runtime_error("oops"); }, {}, true},
           {"route that has answered",
            [](const auto&, const VELResponseHandler& respond) {
              respond(std::make_shared<VELForbiddenResponse>());
              throw std::runtime_error("oops");
            },
            {},
            true},
           {"middleware", answeringWith("x"), {std::make_shared<ThrowingMiddleware>()}, true},
           {"middleware that sees 405", nullptr, {std::make_shared<ThrowingMiddleware>()}, true},
           {"body",
            [](const auto&, const VELResponseHandler& respond) {
              respond(std::make_shared<ThrowingResponse>());
            },
            {},
            true},
           {"end of the response",
            [](const auto&, const VELResponseHandler& respond) {
              respond(std::make_shared<ThrowingAtTheEnd>());
            },
            {},
            false},
       }) {
    const LogCapture log;
    const std::vector<std::string> methods{c.handler ? "GET" : "PUT"};
    FakeConnection fake(configurationWith({routeFor("/", c.handler, methods)}, c.middlewares));
    fake.answerTo(kGet);
    EXPECT_TRUE(fake.socket().wasDisconnected()) << c.what;
    EXPECT_EQ(fake.server().numberOfConnections(), 0U) << c.what;
    if (c.isLogged) {
      EXPECT_THAT(log.lines(),
                  Contains("Uncaught exception raised during request processing: oops"))
          << c.what;
    }
  }
}

}  // namespace
}  // namespace vel::test
