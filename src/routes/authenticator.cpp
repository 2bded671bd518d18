// The authenticator base, which is of no scheme.
#include "corvane/authentication.h"
#include "corvane/error.h"

namespace {

[[noreturn]] void raiseMustBeOverridden(const std::string& operation) {
  throw VELException(VELInvalidArgumentException, operation + " must be overridden by subclasses.");
}

}  // namespace

VELAuthenticator::~VELAuthenticator() = default;

std::string VELAuthenticator::scheme() const { raiseMustBeOverridden("scheme"); }

std::optional<std::string> VELAuthenticator::challenge() const { return std::nullopt; }

VELAuthenticationResult VELAuthenticator::authenticateRequest(
    VELRequest& /*request*/, std::shared_ptr<VELResponse>& /*response*/) {
  raiseMustBeOverridden("authenticateRequest:response:");
}
