// VELBasicAuthenticator: the credentials of a request, taken apart. Whether they are right is the
// delegate's to say.
#include <string_view>
#include <utility>

#include "corvane/authentication.h"
#include "platform/digest.h"
#include "platform/utf8.h"

namespace {

/// The second of the words of `field`, which single blanks separate; two blanks have an empty one
/// between them.
std::optional<std::string_view> secondWord(std::string_view field) {
  const size_t blank = field.find(' ');
  if (blank == std::string_view::npos) return std::nullopt;
  field.remove_prefix(blank + 1);
  return field.substr(0, field.find(' '));
}

struct Credentials {
  std::string username;
  std::string password;
};

std::optional<Credentials> credentialsIn(std::string_view field) {
  const std::optional<std::string_view> word = secondWord(field);
  if (!word) return std::nullopt;
  const std::optional<std::string> text = vel::base64Decoded(*word);
  if (!text || !vel::isValidUTF8(*text)) return std::nullopt;
  const size_t colon = text->find(':');
  if (colon == std::string::npos) return std::nullopt;
  return Credentials{text->substr(0, colon), text->substr(colon + 1)};
}

}  // namespace

VELBasicAuthenticatorDelegate::~VELBasicAuthenticatorDelegate() = default;

VELBasicAuthenticator::~VELBasicAuthenticator() = default;

std::string VELBasicAuthenticator::scheme() const { return "Basic"; }

std::optional<std::string> VELBasicAuthenticator::challenge() const {
  const std::optional<std::string> name = realm();
  return name ? "Basic realm=\"" + *name + "\"" : "Basic";
}

VELAuthenticationResult VELBasicAuthenticator::authenticateRequest(
    VELRequest& request, std::shared_ptr<VELResponse>& /*response*/) {
  const std::optional<Credentials> credentials =
      credentialsIn(request.valueForHeader("Authorization").value_or(""));
  if (!credentials) return VELAuthenticationResult::kDenied;
  const std::shared_ptr<VELBasicAuthenticatorDelegate> judge = delegate();
  const bool isRight = judge && judge->basicAuthenticatorAuthenticateRequest(
                                    *this, request, credentials->username, credentials->password);
  return isRight ? VELAuthenticationResult::kAuthorized : VELAuthenticationResult::kDenied;
}

std::shared_ptr<VELBasicAuthenticatorDelegate> VELBasicAuthenticator::delegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void VELBasicAuthenticator::setDelegate(std::weak_ptr<VELBasicAuthenticatorDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_.swap(delegate);
}

std::optional<std::string> VELBasicAuthenticator::realm() const {
  const std::lock_guard lock(mutex_);
  return realm_;
}

void VELBasicAuthenticator::setRealm(std::optional<std::string> realm) {
  const std::lock_guard lock(mutex_);
  realm_.swap(realm);
}
