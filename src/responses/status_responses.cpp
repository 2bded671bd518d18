// The kinds that are only a status: redirects, errors, and the one that yields the socket.
#include "corvane/error.h"
#include "corvane/responses.h"

namespace {

/// A redirect's path goes to a property named "Location", which no response has. That is meant: a
/// host sets the header field by itself.
[[noreturn]] void raiseUnknownLocation(const char* className) {
  throw VELException(VELUnknownKeyException,
                     std::string(className) + " has no property named \"Location\"");
}

}  // namespace

namespace vel {

StatusResponse::StatusResponse(uint64_t status) { VELResponse::setStatus(status); }
StatusResponse::~StatusResponse() = default;
void StatusResponse::setStatus(uint64_t /*status*/) {}
VELData StatusResponse::readDataOfLength(uint64_t /*length*/) { return {}; }
bool StatusResponse::isFinished() const { return true; }

}  // namespace vel

VELRedirectResponse::VELRedirectResponse() : StatusResponse(302) {}
VELRedirectResponse::VELRedirectResponse(std::string path)
    : StatusResponse(302), path_(std::move(path)) {
  raiseUnknownLocation("VELRedirectResponse");
}
VELRedirectResponse::~VELRedirectResponse() = default;
std::shared_ptr<VELResponse> VELRedirectResponse::copy() const {
  auto copy = std::make_shared<VELRedirectResponse>();
  copyPropertiesTo(*copy);
  copy->path_ = path_;
  return copy;
}

VELPermanentRedirectResponse::VELPermanentRedirectResponse() : StatusResponse(301) {}
VELPermanentRedirectResponse::VELPermanentRedirectResponse(std::string path)
    : StatusResponse(301), path_(std::move(path)) {
  raiseUnknownLocation("VELPermanentRedirectResponse");
}
VELPermanentRedirectResponse::~VELPermanentRedirectResponse() = default;
std::shared_ptr<VELResponse> VELPermanentRedirectResponse::copy() const {
  auto copy = std::make_shared<VELPermanentRedirectResponse>();
  copyPropertiesTo(*copy);
  copy->path_ = path_;
  return copy;
}

VELBadRequestResponse::VELBadRequestResponse() : StatusResponse(400) {
  setValueForHeader("close", "Connection");
}
VELBadRequestResponse::~VELBadRequestResponse() = default;
std::shared_ptr<VELResponse> VELBadRequestResponse::copy() const {
  auto copy = std::make_shared<VELBadRequestResponse>();
  copyPropertiesTo(*copy);
  return copy;
}

VELNotAuthorizedResponse::VELNotAuthorizedResponse() : StatusResponse(401) {}
VELNotAuthorizedResponse::~VELNotAuthorizedResponse() = default;
std::shared_ptr<VELResponse> VELNotAuthorizedResponse::copy() const {
  auto copy = std::make_shared<VELNotAuthorizedResponse>();
  copyPropertiesTo(*copy);
  return copy;
}

VELForbiddenResponse::VELForbiddenResponse() : StatusResponse(403) {}
VELForbiddenResponse::~VELForbiddenResponse() = default;
std::shared_ptr<VELResponse> VELForbiddenResponse::copy() const {
  auto copy = std::make_shared<VELForbiddenResponse>();
  copyPropertiesTo(*copy);
  return copy;
}

VELNotFoundResponse::VELNotFoundResponse() : StatusResponse(404) {}
VELNotFoundResponse::~VELNotFoundResponse() = default;
std::shared_ptr<VELResponse> VELNotFoundResponse::copy() const {
  auto copy = std::make_shared<VELNotFoundResponse>();
  copyPropertiesTo(*copy);
  return copy;
}

VELMethodNotSupportedResponse::VELMethodNotSupportedResponse() : StatusResponse(405) {
  setValueForHeader("close", "Connection");
}
VELMethodNotSupportedResponse::~VELMethodNotSupportedResponse() = default;
std::shared_ptr<VELResponse> VELMethodNotSupportedResponse::copy() const {
  auto copy = std::make_shared<VELMethodNotSupportedResponse>();
  copyPropertiesTo(*copy);
  return copy;
}

VELSocketYieldResponse::VELSocketYieldResponse() : StatusResponse(101) {}
VELSocketYieldResponse::~VELSocketYieldResponse() = default;
std::shared_ptr<VELResponse> VELSocketYieldResponse::copy() const {
  auto copy = std::make_shared<VELSocketYieldResponse>();
  copyPropertiesTo(*copy);
  return copy;
}
