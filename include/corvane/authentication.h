// VELAuthenticationMiddleware and the authenticators that it asks: who may use a route.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "corvane/export.h"
#include "corvane/middleware.h"
#include "corvane/request.h"
#include "corvane/response.h"
#include "corvane/route.h"

class VELBasicAuthenticator;

/// What an authenticator says of a request. Any other value, from the last one that is asked, lets the
/// request through.
enum class VELAuthenticationResult : unsigned {
  kUndecided = 0,   // the next authenticator is asked
  kAuthorized = 1,  // the request goes to the route
  kDenied = 2,      // the request is refused with the challenge of this authenticator
};

/// Judges requests by one authentication scheme.
///
/// ```cpp
/// struct TokenAuthenticator : VELAuthenticator {
///   std::string scheme() const override { return "Bearer"; }
///   std::optional<std::string> challenge() const override { return "Bearer"; }
///   VELAuthenticationResult authenticateRequest(VELRequest& request,
///                                               std::shared_ptr<VELResponse>&) override {
///     const bool isKnown = request.valueForHeader("Authorization") == "Bearer of-good-news";
///     return isKnown ? VELAuthenticationResult::kAuthorized : VELAuthenticationResult::kDenied;
///   }
/// };
/// ```
/// Owner:   shared by the routes that it guards and all connections; keeps nothing about one request.
/// Queue:   each connection's own, several at once.
class CORVANE_EXPORT VELAuthenticator {
 public:
  VELAuthenticator() = default;
  VELAuthenticator(const VELAuthenticator&) = delete;
  VELAuthenticator& operator=(const VELAuthenticator&) = delete;
  virtual ~VELAuthenticator();

  /// The first word of the "Authorization" fields that this authenticator judges, in any letter case.
  /// Errors:  the base raises "scheme must be overridden by subclasses.".
  virtual std::string scheme() const;
  /// What a client that is refused is told in "WWW-Authenticate" (RFC 9110 §11.6.1).
  /// Default: none.
  virtual std::optional<std::string> challenge() const;
  /// Judges a request whose "Authorization" field has this scheme. A response put into `response` is
  /// the answer if the request is refused; it may hold that of an authenticator asked before.
  /// Errors:  the base raises "authenticateRequest:response: must be overridden by subclasses.".
  virtual VELAuthenticationResult authenticateRequest(VELRequest& request,
                                                      std::shared_ptr<VELResponse>& response);
};

/// Judges user names and passwords.
class CORVANE_EXPORT VELBasicAuthenticatorDelegate {
 public:
  virtual ~VELBasicAuthenticatorDelegate();

  /// Whether the password is the user's. Compare in a time that tells nothing about how much of it was
  /// right.
  /// Shape:   both are UTF-8 and may be empty; the password may hold colons.
  /// Queue:   the connection's, those of several at once. The client waits for the result.
  virtual bool basicAuthenticatorAuthenticateRequest(VELBasicAuthenticator& basicAuthenticator,
                                                     VELRequest& request,
                                                     const std::string& username,
                                                     const std::string& password) = 0;
};

/// The scheme "Basic" (RFC 7617): the client sends user name and password with each request, readable
/// for everybody on the way unless the connection is secure.
///
/// ```cpp
/// void guard(VELRoute& route, const std::shared_ptr<VELBasicAuthenticatorDelegate>& users) {
///   auto authenticator = std::make_shared<VELBasicAuthenticator>();
///   authenticator->setRealm("Staff");
///   authenticator->setDelegate(users);  // which the host keeps
///   route.setAuthenticators({authenticator});
/// }
/// ```
/// Queue:   accessors: any.
class CORVANE_EXPORT VELBasicAuthenticator : public VELAuthenticator {
 public:
  ~VELBasicAuthenticator() override;

  std::string scheme() const override;
  std::optional<std::string> challenge() const override;
  /// Denied: credentials that are not base64 of UTF-8 text with a colon, that the delegate refuses, or
  /// without a delegate. The response is left alone.
  VELAuthenticationResult authenticateRequest(VELRequest& request,
                                              std::shared_ptr<VELResponse>& response) override;

  /// Default: none, and everything is denied.
  std::shared_ptr<VELBasicAuthenticatorDelegate> delegate() const;
  void setDelegate(std::weak_ptr<VELBasicAuthenticatorDelegate> delegate);
  /// What the user is asked a password for.
  /// Shape:   goes into the challenge as it is: a quote or a backslash needs a backslash before it.
  /// Default: none.
  std::optional<std::string> realm() const;
  void setRealm(std::optional<std::string> realm);

 private:
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::weak_ptr<VELBasicAuthenticatorDelegate> delegate_;
  std::optional<std::string> realm_;
};

/// Refuses requests that the authenticators of their route do not let through. A route without
/// authenticators is open to everybody, and so is every route without this middleware.
///
/// ```cpp
/// auto configuration = std::make_shared<VELConfiguration>();
/// configuration->addMiddleware(std::make_shared<VELAuthenticationMiddleware>());
/// ```
/// The authenticators of the scheme that the request names are asked in order, until one authorizes or
/// denies. A refusal is the response that one of them has made, else a `VELNotAuthorizedResponse`. Its
/// "WWW-Authenticate", unless it has one, is the challenge of who denied, or else those of all
/// authenticators of the route with nothing in between.
/// A route is guarded, not what it leads to: where another route leads to the same, by another spelling
/// of the path for instance, nobody is asked.
/// It is asked once the body of a request has been read. OPTIONS and TRACE come to it only where the
/// route lists them.
/// Owner:   one may serve every configuration and connection.
class CORVANE_EXPORT VELAuthenticationMiddleware : public VELMiddleware {
 public:
  ~VELAuthenticationMiddleware() override;

  std::shared_ptr<VELResponse> evaluateRequest(VELRequest& request, VELRoute& route) override;
};
