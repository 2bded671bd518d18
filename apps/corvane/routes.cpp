// The routes of the command line: file and proxy routes, and block routes with their handlers.
#include "routes.h"

#include <string>
#include <utility>

#include "corvane/block_route.h"
#include "corvane/data.h"
#include "corvane/file_route.h"
#include "corvane/proxy_route.h"
#include "corvane/response.h"
#include "corvane/url.h"
#include "echo_route.h"
#include "inspect_json.h"
#include "users.h"

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

std::shared_ptr<VELBlockRoute> makeBlockRoute(const RouteOption& option) {
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
    case RouteOption::Kind::kFiles:
    case RouteOption::Kind::kProxy:
    case RouteOption::Kind::kEcho:
      break;
  }
  return route;
}

std::shared_ptr<VELFileRoute> makeFileRoute(const RouteOption& option,
                                            const std::vector<std::string>& indexNames) {
  auto route = VELFileRoute::routeWithPath(option.path, VELURL::fileURLWithPath(option.text));
  if (!indexNames.empty()) route->setDirectoryIndexNames(indexNames);
  return route;
}

std::shared_ptr<VELProxyRoute> makeProxyRoute(const RouteOption& option) {
  auto route = std::make_shared<VELProxyRoute>(option.path, false);
  route->setURL(VELURL::URLWithString(option.text));
  // The whole comes from upstream, and ranges are taken out of it here, once.
  route->setHeaders({{"Range", ""}});
  route->setAllowedHTTPMethods({"HEAD", "GET", "POST", "PUT", "DELETE", "PATCH", "OPTIONS"});
  return route;
}

}  // namespace

std::vector<std::shared_ptr<VELRoute>> makeRoutes(const ServeOptions& options) {
  std::vector<std::shared_ptr<VELRoute>> routes;
  for (const RouteOption& option : options.routes) {
    std::shared_ptr<VELRoute> route;
    if (option.kind == RouteOption::Kind::kFiles) {
      route = makeFileRoute(option, options.indexNames);
    } else if (option.kind == RouteOption::Kind::kProxy) {
      route = makeProxyRoute(option);
    } else if (option.kind == RouteOption::Kind::kEcho) {
      route = std::make_shared<EchoRoute>(option.path);
    } else {
      route = makeBlockRoute(option);
    }
    if (option.methods) route->setAllowedHTTPMethods(*option.methods);
    if (!option.users.empty()) {
      route->setAuthenticators({makeAuthenticator(option.users, options.realm)});
    }
    routes.push_back(std::move(route));
  }
  return routes;
}
