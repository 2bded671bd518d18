// Each kind of route is a block route: a handler and the methods that it allows by itself.
#include "routes.h"

#include <string>
#include <utility>

#include "corvane/block_route.h"
#include "corvane/data.h"
#include "corvane/response.h"
#include "corvane/version.h"
#include "inspect_json.h"

namespace {

constexpr char kPlainText[] = "text/plain; charset=utf-8";

VELBlockRoute::Handler textHandler(std::string text) {
  // All answers share the one copy of the text.
  return [data = VELData(std::move(text))](VELRoute&, const std::shared_ptr<VELRequest>&,
                                           const VELResponseHandler& respond) {
    respond(VELResponse::responseWithData(data, 200, kPlainText));
  };
}

std::shared_ptr<VELResponse> reflection(const VELRequest& request) {
  constexpr char kBytes[] = "application/octet-stream";
  if (const auto file = request.bodyFileURL()) {
    return VELResponse::responseWithFileURL(*file, 200, kBytes);
  }
  const auto data = request.bodyData();
  return VELResponse::responseWithData(data ? *data : VELData(), 200, kBytes);
}

void reflect(VELRoute&, const std::shared_ptr<VELRequest>& request,
             const VELResponseHandler& respond) {
  respond(reflection(*request));
}

void inspect(VELRoute&, const std::shared_ptr<VELRequest>& request,
             const VELResponseHandler& respond) {
  respond(VELResponse::responseWithData(VELData(inspectJSON(*request) + "\n"), 200,
                                        "application/json"));
}

std::shared_ptr<VELBlockRoute> makeRoute(const RouteOption& option) {
  auto route = std::make_shared<VELBlockRoute>(option.path, false);
  switch (option.kind) {
    case RouteOption::Kind::kText:
      route->setHandler(textHandler(option.text));
      break;
    case RouteOption::Kind::kReflect:
      route->setHandler(reflect);
      route->setAllowedHTTPMethods({"HEAD", "GET", "POST", "PUT", "DELETE", "PATCH"});
      break;
    case RouteOption::Kind::kInspect:
      route->setHandler(inspect);
      route->setAllowedHTTPMethods({"HEAD", "GET", "POST", "PUT", "DELETE", "PATCH", "OPTIONS"});
      break;
  }
  if (option.methods) route->setAllowedHTTPMethods(*option.methods);
  return route;
}

std::string welcome() {
  return "Corvane " + std::string(VELVersion()) +
         " is running.\n"
         "Give it something to serve, for instance: corvane --text /hello=Hello --inspect "
         "/inspect\n";
}

}  // namespace

std::vector<std::shared_ptr<VELRoute>> makeRoutes(const std::vector<RouteOption>& options) {
  std::vector<std::shared_ptr<VELRoute>> routes;
  for (const RouteOption& option : options) routes.push_back(makeRoute(option));
  if (routes.empty()) {
    routes.push_back(makeRoute({RouteOption::Kind::kText, "/", welcome(), std::nullopt}));
  }
  return routes;
}
