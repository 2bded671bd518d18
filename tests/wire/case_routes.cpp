// Routes about requests: what of them arrives, which methods are let through, what handlers may do.
#include "wire/case_routes.h"

#include <optional>
#include <utility>

#include "support/test_server.h"

namespace vel::test {
namespace {

/// A route whose list of methods is absent, as only a subclass can have it.
class EveryMethodRoute : public VELRoute {
 public:
  using VELRoute::VELRoute;
  VELMethodList allowedHTTPMethods() const override { return nullptr; }
  void evaluateWithRequest(std::shared_ptr<VELRequest> request,
                           VELResponseHandler responseHandler) override {
    responseHandler(textResponse(request->method()));
  }
};

using Outcome = std::pair<std::shared_ptr<VELResponse>, std::optional<VELError>>;

void addRoute(VELConfiguration& configuration, const std::string& path,
              const std::function<Outcome(const VELRequest&)>& answer,
              const std::vector<std::string>& methods = {"HEAD", "GET"}) {
  auto route = blockRoute(path, [answer](VELRoute&, const std::shared_ptr<VELRequest>& request,
                                         const VELResponseHandler& respond) {
    auto [response, error] = answer(*request);
    respond(std::move(response), std::move(error));
  });
  route->setAllowedHTTPMethods(methods);
  configuration.addRoute(route);
}

VELError errorWithTexts() {
  VELError error("CaseErrorDomain", 7, "It failed.");
  error.setLocalizedFailureReason("It had to.");
  error.setLocalizedRecoverySuggestion("Do not.");
  return error;
}

}  // namespace

std::string describe(const VELRequest& request) {
  const auto data = request.bodyData();
  const std::string kind = request.bodyFileURL() ? "file" : data ? "memory" : "none";
  return request.method() + " " + std::to_string(request.contentLength()) + " " + kind + " " +
         (data ? data->string() : std::string());
}

void addCaseRoutes(VELConfiguration& configuration) {
  configuration.addRoute(textRoute("/text", "Hello"));
  addRoute(configuration, "/describe",
           [](const VELRequest& request) {
             return Outcome(textResponse(describe(request)), std::nullopt);
           },
           {"HEAD", "GET", "POST", "PUT", "DELETE", "PATCH"});
  configuration.addRoute(std::make_shared<EveryMethodRoute>("/every", false));
  addRoute(configuration, "/own",
           [](const VELRequest& request) {
             return Outcome(textResponse(request.method()), std::nullopt);
           },
           {"GET", "OPTIONS", "TRACE"});
  addRoute(configuration, "/first",
           [](const VELRequest&) { return Outcome(textResponse("first"), std::nullopt); }, {"GET"});
  addRoute(configuration, "/first/second",
           [](const VELRequest&) { return Outcome(textResponse("second"), std::nullopt); },
           {"GET", "DELETE"});
  addRoute(configuration, "/absolute", [](const VELRequest& request) {
    return Outcome(textResponse(request.URL()->absoluteString() +
                                (request.isSecure() ? " secure" : " not secure")),
                   std::nullopt);
  });
  addRoute(configuration, "/nothing",
           [](const VELRequest&) { return Outcome(nullptr, std::nullopt); });
  addRoute(configuration, "/error",
           [](const VELRequest&) { return Outcome(nullptr, VELError("CaseErrorDomain", 7)); });
  addRoute(configuration, "/failure",
           [](const VELRequest&) { return Outcome(nullptr, errorWithTexts()); });
  addRoute(configuration, "/both",
           [](const VELRequest&) { return Outcome(textResponse("both"), errorWithTexts()); });
  configuration.addRoute(std::make_shared<VELBlockRoute>("/without-handler", false));
  addResponseRoutes(configuration);
}

}  // namespace vel::test
