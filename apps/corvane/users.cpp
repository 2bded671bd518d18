// Comparing user names and passwords in a time that tells nothing about them: by their digests, which
// have one length, always all of the digest, and always all users.
#include "users.h"

#include <cstddef>

#include "corvane/digest.h"

namespace {

bool areEqual(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  // Volatile, so that the compiler cannot end the loop at the first difference.
  volatile unsigned difference = 0;
  for (size_t index = 0; index < a.size(); ++index) {
    difference = difference | static_cast<unsigned>(a[index] ^ b[index]);
  }
  return difference == 0;
}

class Users : public VELBasicAuthenticatorDelegate {
 public:
  explicit Users(const std::vector<UserOption>& users) {
    for (const UserOption& user : users) {
      users_.push_back({VELSHA256Digest(user.name), VELSHA256Digest(user.password)});
    }
  }

  bool basicAuthenticatorAuthenticateRequest(VELBasicAuthenticator&, VELRequest&,
                                             const std::string& username,
                                             const std::string& password) override {
    const User asking{VELSHA256Digest(username), VELSHA256Digest(password)};
    unsigned matches = 0;
    for (const User& user : users_) {
      const unsigned hasName = areEqual(user.nameDigest, asking.nameDigest) ? 1 : 0;
      const unsigned hasPassword = areEqual(user.passwordDigest, asking.passwordDigest) ? 1 : 0;
      matches |= hasName & hasPassword;
    }
    return matches != 0;
  }

 private:
  struct User {
    std::string nameDigest;
    std::string passwordDigest;
  };
  std::vector<User> users_;
};

/// An authenticator does not keep its delegate, so these two live together.
struct Guard {
  explicit Guard(const std::vector<UserOption>& options) : users(options) {}

  Users users;
  VELBasicAuthenticator authenticator;
};

}  // namespace

std::shared_ptr<VELAuthenticator> makeAuthenticator(const std::vector<UserOption>& users,
                                                    const std::optional<std::string>& realm) {
  const auto guard = std::make_shared<Guard>(users);
  guard->authenticator.setRealm(realm);
  guard->authenticator.setDelegate(std::shared_ptr<Users>(guard, &guard->users));
  return {guard, &guard->authenticator};
}
