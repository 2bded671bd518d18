// VELAuthenticationMiddleware: which authenticators of a route are asked, and how a refusal looks.
#include <string_view>
#include <vector>

#include "corvane/authentication.h"
#include "corvane/responses.h"
#include "platform/ascii.h"

namespace {

using Authenticators = std::vector<std::shared_ptr<VELAuthenticator>>;

/// What the authenticators that were asked have said.
struct Verdict {
  // The last one's.
  VELAuthenticationResult result = VELAuthenticationResult::kUndecided;
  const VELAuthenticator* denying = nullptr;
  std::shared_ptr<VELResponse> response;

  bool letsThrough() const {
    return result != VELAuthenticationResult::kUndecided &&
           result != VELAuthenticationResult::kDenied;
  }
};

Verdict verdictOf(const Authenticators& authenticators, VELRequest& request) {
  Verdict verdict;
  const std::string field = request.valueForHeader("Authorization").value_or("");
  const size_t blank = field.find(' ');
  if (blank == std::string::npos) return verdict;
  const std::string_view scheme = std::string_view(field).substr(0, blank);
  for (const std::shared_ptr<VELAuthenticator>& authenticator : authenticators) {
    if (!vel::equalsIgnoringCase(authenticator->scheme(), scheme)) continue;
    verdict.result = authenticator->authenticateRequest(request, verdict.response);
    if (verdict.result == VELAuthenticationResult::kAuthorized) break;
    if (verdict.result == VELAuthenticationResult::kDenied) {
      verdict.denying = authenticator.get();
      break;
    }
  }
  return verdict;
}

// Nothing stands between them, which is meant.
std::string allChallenges(const Authenticators& authenticators) {
  std::string challenges;
  for (const std::shared_ptr<VELAuthenticator>& authenticator : authenticators) {
    challenges += authenticator->challenge().value_or("");
  }
  return challenges;
}

}  // namespace

VELAuthenticationMiddleware::~VELAuthenticationMiddleware() = default;

std::shared_ptr<VELResponse> VELAuthenticationMiddleware::evaluateRequest(VELRequest& request,
                                                                          VELRoute& route) {
  constexpr std::string_view kChallengeField = "WWW-Authenticate";
  const Authenticators authenticators = route.authenticators();
  if (authenticators.empty()) return nullptr;
  Verdict verdict = verdictOf(authenticators, request);
  if (verdict.letsThrough()) return nullptr;
  if (!verdict.response) verdict.response = std::make_shared<VELNotAuthorizedResponse>();
  if (verdict.response->valueForHeader(kChallengeField).value_or("").empty()) {
    verdict.response->setValueForHeader(
        verdict.denying ? verdict.denying->challenge() : allChallenges(authenticators),
        kChallengeField);
  }
  return verdict.response;
}
