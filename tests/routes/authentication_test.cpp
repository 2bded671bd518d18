// Tests of the authentication middleware, of which authenticators it asks, and of "Basic".
#include "corvane/authentication.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvane/block_route.h"
#include "corvane/error.h"

namespace {

using testing::ElementsAre;
using testing::ThrowsMessage;
using Result = VELAuthenticationResult;

struct Script {
  std::string scheme;
  std::string challenge;
  int result;
  /// Makes a response of its own with this challenge; "bare" makes one without.
  std::string answer = {};
};

/// Says what it is told to, and notes that it was asked.
struct Scripted : VELAuthenticator {
  Scripted(Script text, std::vector<std::string>& calls) : script(std::move(text)), asked(calls) {}

  std::string scheme() const override { return script.scheme; }
  std::optional<std::string> challenge() const override {
    return script.challenge == "none" ? std::nullopt : std::optional(script.challenge);
  }
  Result authenticateRequest(VELRequest&, std::shared_ptr<VELResponse>& response) override {
    asked.push_back(script.challenge + (response ? " after an answer" : ""));
    if (!script.answer.empty()) {
      response = std::make_shared<VELResponse>();
      response->setStatus(418);
      if (script.answer != "bare") response->setValueForHeader(script.answer, "WWW-Authenticate");
    }
    return static_cast<Result>(script.result);
  }

  const Script script;
  std::vector<std::string>& asked;
};

/// "passes", or the status and the challenge that the client gets.
std::string outcome(const std::string& authorization, const std::vector<Script>& scripts,
                    std::vector<std::string>* asked) {
  std::vector<std::shared_ptr<VELAuthenticator>> authenticators;
  for (const Script& script : scripts) {
    authenticators.push_back(std::make_shared<Scripted>(script, *asked));
  }
  VELBlockRoute route("/", false);
  route.setAuthenticators(authenticators);
  VELRequest request;
  request.setHeaders({{"AUTHORIZATION", authorization}});
  const auto response = VELAuthenticationMiddleware().evaluateRequest(request, route);
  if (!response) return "passes";
  return std::to_string(response->status()) + " " +
         response->valueForHeader("WWW-Authenticate").value_or("(none)");
}

TEST(AuthenticationMiddleware, FollowsWhatTheAuthenticatorsSay) {
  const struct {
    std::string authorization;
    std::vector<Script> scripts;
    std::string outcome;
    std::vector<std::string> asked;
  } cases[] = {
      {"X y", {}, "passes", {}},
      {"", {{"X", "a", 1}, {"Y", "b", 1}}, "401 ab", {}},
      {"X", {{"X", "a", 1}, {"Y", "none", 1}, {"X", "b", 1}}, "401 ab", {}},
      {"Z y", {{"X", "a", 1}}, "401 a", {}},
      {" X y", {{"X", "a", 1}}, "401 a", {}},
      {"x y", {{"Y", "a", 2}, {"X", "b", 1}, {"X", "c", 2}}, "passes", {"b"}},
      {"X ", {{"X", "a", 2}, {"X", "b", 1}}, "401 a", {"a"}},
      {"X y", {{"X", "a", 0}, {"X", "b", 2}, {"X", "c", 1}}, "401 b", {"a", "b"}},
      {"X y", {{"X", "a", 0}, {"X", "b", 0}}, "401 ab", {"a", "b"}},
      {"X y", {{"X", "none", 2}}, "401 (none)", {"none"}},
      {"X y", {{"X", "none", 0}}, "401 ", {"none"}},
      // Only the last result of those that mean nothing counts, and it lets the request through.
      {"X y", {{"X", "a", 3}, {"Y", "b", 2}}, "passes", {"a"}},
      {"X y", {{"X", "a", 3}, {"X", "b", 0}}, "401 ab", {"a", "b"}},
      // Answers of their own.
      {"X y", {{"X", "a", 2, "bare"}}, "418 a", {"a"}},
      {"X y", {{"X", "a", 2, "own"}}, "418 own", {"a"}},
      {"X y", {{"X", "a", 0, "own"}, {"X", "b", 2}}, "418 own", {"a", "b after an answer"}},
      {"X y", {{"X", "a", 0, "own"}, {"X", "b", 1}}, "passes", {"a", "b after an answer"}},
  };
  for (const auto& expected : cases) {
    std::vector<std::string> asked;
    SCOPED_TRACE(expected.authorization + " for " + expected.outcome);
    EXPECT_EQ(outcome(expected.authorization, expected.scripts, &asked), expected.outcome);
    EXPECT_EQ(asked, expected.asked);
  }
}

TEST(Authenticator, RaisesForWhatASubclassHasToSay) {
  VELAuthenticator base;
  VELRequest request;
  std::shared_ptr<VELResponse> response;
  EXPECT_THAT([&base] { base.scheme(); },
              ThrowsMessage<VELException>(
                  "NSInvalidArgumentException: scheme must be overridden by subclasses."));
  EXPECT_THAT([&] { base.authenticateRequest(request, response); },
              ThrowsMessage<VELException>("NSInvalidArgumentException: authenticateRequest:"
                                          "response: must be overridden by subclasses."));
  EXPECT_EQ(base.challenge(), std::nullopt);
  VELBlockRoute route("/", false);
  EXPECT_THROW(route.setAuthenticators({nullptr}), VELException);
  EXPECT_TRUE(route.authenticators().empty());
}

struct Judge : VELBasicAuthenticatorDelegate {
  bool basicAuthenticatorAuthenticateRequest(VELBasicAuthenticator&, VELRequest&,
                                             const std::string& username,
                                             const std::string& password) override {
    judged.push_back(username + "|" + password);
    return password == "right";
  }
  std::vector<std::string> judged;
};

TEST(BasicAuthenticator, HasItsDelegateJudge) {
  VELBasicAuthenticator authenticator;
  auto judge = std::make_shared<Judge>();
  authenticator.setDelegate(judge);
  const auto resultOf = [&authenticator](const std::string& authorization) {
    VELRequest request;
    request.setHeaders({{"AUTHORIZATION", authorization}});
    std::shared_ptr<VELResponse> response;
    const Result result = authenticator.authenticateRequest(request, response);
    EXPECT_FALSE(response);
    return result;
  };
  EXPECT_EQ(resultOf("Basic dXNlcjpyaWdodA=="), Result::kAuthorized);
  EXPECT_EQ(resultOf("Whatever dXNlcjpyaWdodA== more"), Result::kAuthorized);
  EXPECT_EQ(resultOf("Basic dXNlcjpwYTpzcw=="), Result::kDenied);  // user:pa:ss
  EXPECT_EQ(resultOf("Basic OnNlY3JldA=="), Result::kDenied);      // :secret
  EXPECT_EQ(resultOf("Basic Og=="), Result::kDenied);              // :
  EXPECT_EQ(resultOf("Basic w7w6AA=="), Result::kDenied);          // ü:NUL
  EXPECT_THAT(judge->judged, ElementsAre("user|right", "user|right", "user|pa:ss", "|secret", "|",
                                         std::string("ü|\0", 4)));
  judge->judged.clear();
  for (const std::string text :
       {"", "Basic", "Basic ", "Basic  dXNlcjpyaWdodA==", "Basic dXNlcjpyaWdodA",
        "Basic dXNlcjpyaWdodA=", "Basic dXNlcjpyaWdodA==\r\n",
        "Basic dXNl\ncjpyaWdodA==", "Basic\tdXNlcjpyaWdodA==", "Basic ====", "Basic dXNlcg==",
        "Basic _-8=", "Basic /zpyaWdodA==", "Basic wIA6cmlnaHQ="}) {
    EXPECT_EQ(resultOf(text), Result::kDenied) << text;
  }
  EXPECT_THAT(judge->judged, ElementsAre());
  judge.reset();
  EXPECT_EQ(resultOf("Basic dXNlcjpyaWdodA=="), Result::kDenied);
}

}  // namespace
