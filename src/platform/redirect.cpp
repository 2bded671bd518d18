#include "platform/redirect.h"

#include <string>

#include "platform/ascii.h"
#include "platform/url_parts.h"

namespace vel {
namespace {

uint16_t portOf(const VELURL& url) {
  return url.port().value_or(equalsIgnoringCase(url.scheme(), "https") ? 443 : 80);
}

bool haveSameOrigin(const VELURL& a, const VELURL& b) {
  return equalsIgnoringCase(a.scheme(), b.scheme()) && equalsIgnoringCase(a.host(), b.host()) &&
         portOf(a) == portOf(b);
}

bool becomesGet(const std::string& method, uint64_t status) {
  if (status == 303) return method != "HEAD" && method != "GET";
  return (status == 301 || status == 302) && method == "POST";
}

}  // namespace

bool redirects(uint64_t status) noexcept {
  return (status >= 301 && status <= 303) || status == 307 || status == 308;
}

void redirect(VELURLRequest* request, uint64_t status, const VELURL& location) {
  if (becomesGet(request->method(), status)) {
    request->setMethod("GET");
    request->setBody(std::nullopt);
    for (const char* field :
         {"Content-Encoding", "Content-Language", "Content-Location", "Content-Type"}) {
      request->setValueForHTTPHeaderField(std::nullopt, field);
    }
  }
  if (!haveSameOrigin(request->URL(), location)) {
    for (const char* field : {"Authorization", "Cookie", "Proxy-Authorization"}) {
      request->setValueForHTTPHeaderField(std::nullopt, field);
    }
  }
  request->setValueForHTTPHeaderField(hostFieldOf(location), "Host");
  request->setURL(location);
}

std::string hostFieldOf(const VELURL& url) {
  std::string host = hostInBrackets(url.host());
  if (const auto port = url.port()) host += ":" + std::to_string(*port);
  return host;
}

}  // namespace vel
