// "Authorization" on the wire, and where authentication stands among middlewares and methods.
#include "corvane/authentication.h"
#include "support/log_capture.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

struct OneUser : VELBasicAuthenticatorDelegate {
  bool basicAuthenticatorAuthenticateRequest(VELBasicAuthenticator&, VELRequest&,
                                             const std::string& username,
                                             const std::string& password) override {
    return username == "user" && password == "pa:ss";
  }
};

/// Lets everything through, or fails.
struct Bearer : VELAuthenticator {
  std::string scheme() const override { return "Bearer"; }
  std::optional<std::string> challenge() const override { return "Bearer"; }
  VELAuthenticationResult authenticateRequest(VELRequest& request,
                                              std::shared_ptr<VELResponse>&) override {
    if (request.valueForHeader("Authorization") == "Bearer throws") throw std::runtime_error("no");
    return VELAuthenticationResult::kAuthorized;
  }
};

/// Marks what passes in either direction, so that an answer tells who was asked.
struct Marking : VELMiddleware {
  std::shared_ptr<VELResponse> evaluateResponse(std::shared_ptr<VELResponse> response,
                                                VELRequest&) override {
    response->setValueForHeader("seen", "X-Mark");
    return response;
  }
};

class AuthenticationCases : public ::testing::TestWithParam<Transport> {};
INSTANTIATE_WIRE_TABLE(AuthenticationCases);

std::string get(const std::string& path, const std::string& authorization) {
  return head({"GET " + path + " HTTP/1.1", "Authorization: " + authorization});
}

TEST_P(AuthenticationCases, AreAnswered) {
  const auto user = std::make_shared<OneUser>();
  TestServer server({.transport = GetParam()}, [&user](VELConfiguration& configuration) {
    const auto basic = std::make_shared<VELBasicAuthenticator>();
    basic->setRealm("a \"b\"");
    basic->setDelegate(user);
    const auto guarded = textRoute("/guarded", "in");
    guarded->setAuthenticators({basic, std::make_shared<Bearer>()});
    configuration.addRoute(guarded);
    configuration.addRoute(textRoute("/open", "open"));
    configuration.addMiddleware(std::make_shared<VELAuthenticationMiddleware>());
    configuration.addMiddleware(std::make_shared<Marking>());
  });
  const std::string right = "dXNlcjpwYTpzcw==";
  const std::string all = "Basic realm=\"a \"b\"\"Bearer";
  const std::string basic = "Basic realm=\"a \"b\"\"";
  const struct {
    std::string sent;
    int status;
    std::optional<std::string> challenge = {};
    bool marked = false;
  } cases[] = {
      {get("/guarded", "Basic " + right), 200, {}, true},
      {get("/guarded", "bASIC " + right + " and more"), 200, {}, true},
      {get("/guarded", "Bearer x"), 200, {}, true},
      {get("/open", "Basic wrong"), 200, {}, true},
      {head({"GET /guarded HTTP/1.1"}), 401, all},
      {get("/guarded", ""), 401, all},
      {get("/guarded", "Basic"), 401, all},
      {get("/guarded", "Digest " + right), 401, all},
      {get("/guarded", "Basic  " + right), 401, basic},
      {get("/guarded", "Basic dXNlcjpwYTpz"), 401, basic},
      {get("/guarded", "Basic user:pa:ss"), 401, basic},
      {get("/guarded", "Basic \xC3\xBC\x80\xFF"), 401, basic},
      // As long as a line of a head may be, with and without whole groups.
      {get("/guarded", "Basic Og==" + std::string(8157, ' ')), 401, basic},
      {get("/guarded", "Basic OjpB" + std::string(8160, 'A')), 401, basic},
      {get("/guarded", "Basic " + std::string(8167, 'A')), 401, basic},
      // The method is looked at after who asks, and these are answered without either.
      {head({"DELETE /guarded HTTP/1.1"}), 401, all},
      {head({"DELETE /guarded HTTP/1.1", "Authorization: Bearer x"}), 405, {}, true},
      {head({"OPTIONS /guarded HTTP/1.1"}), 204},
      {head({"GET /nowhere HTTP/1.1"}), 404},
  };
  const auto client = server.connect();
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.sent.substr(0, 80));
    const Answer answer = client->exchange(expected.sent);
    EXPECT_EQ(answer.status, expected.status);
    EXPECT_EQ(answer.value("WWW-Authenticate"), expected.challenge);
    EXPECT_EQ(answer.value("X-Mark").has_value(), expected.marked);
  }
  const LogCapture log;
  for (const std::string& token : {std::string("throws"), std::string(8192, 'A')}) {
    const auto unlucky = server.connect();
    unlucky->send(get("/guarded", "Bearer " + token));
    EXPECT_EQ(unlucky->readToEnd(), "");
  }
  EXPECT_EQ(client->exchange(get("/guarded", "Bearer x")).status, 200);
}

}  // namespace
}  // namespace vel::test
