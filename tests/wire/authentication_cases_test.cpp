// "Authorization" on the wire, and where authentication stands among dispatch and methods.
#include "corvane/authentication.h"
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
    guarded->setAuthenticators({basic});
    configuration.addRoute(guarded);
    configuration.addRoute(textRoute("/open", "open"));
    configuration.addMiddleware(std::make_shared<VELAuthenticationMiddleware>());
  });
  const std::string right = "dXNlcjpwYTpzcw==";
  const std::pair<std::string, int> cases[] = {
      {get("/guarded", "Basic " + right), 200},
      {get("/guarded", "bASIC " + right + " and more"), 200},
      {get("/open", "Basic wrong"), 200},
      {head({"GET /guarded HTTP/1.1"}), 401},
      {get("/guarded", "Digest " + right), 401},
      {get("/guarded", "Basic dXNlcjpwYTpz"), 401},
      // As long as a line of a head may be, with and without whole groups.
      {get("/guarded", "Basic Og==" + std::string(8157, ' ')), 401},
      {get("/guarded", "Basic OjpB" + std::string(8160, 'A')), 401},
      {get("/guarded", "Basic " + std::string(8167, 'A')), 401},
      // The method is looked at after who asks, and these are answered without either.
      {head({"DELETE /guarded HTTP/1.1"}), 401},
      {head({"DELETE /guarded HTTP/1.1", "Authorization: Basic " + right}), 405},
      {head({"OPTIONS /guarded HTTP/1.1"}), 204},
      {head({"GET /nowhere HTTP/1.1"}), 404},
  };
  const auto client = server.connect();
  for (const auto& [sent, status] : cases) {
    SCOPED_TRACE(sent.substr(0, 80));
    const Answer answer = client->exchange(sent);
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.value("WWW-Authenticate").value_or(""),
              status == 401 ? "Basic realm=\"a \"b\"\"" : "");
  }
}

}  // namespace
}  // namespace vel::test
