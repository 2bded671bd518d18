// VELRoute: base of everything that answers requests under a pattern of paths.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/export.h"
#include "corvane/regular_expression.h"
#include "corvane/request.h"
#include "corvane/response_handler.h"

class VELAuthenticator;

/// An immutable list of method names; none stands for every method.
using VELMethodList = std::shared_ptr<const std::vector<std::string>>;

/// Answers the requests whose path its regular expression matches.
///
/// ```cpp
/// struct Version : VELRoute {
///   using VELRoute::VELRoute;
///   void evaluateWithRequest(std::shared_ptr<VELRequest>, VELResponseHandler handler) override {
///     handler(VELResponse::responseWithString("1", VELUTF8StringEncoding, 200, "text/plain"));
///   }
/// };
/// auto route = std::make_shared<Version>("/version", false);
/// ```
/// Owner:   shared by the configuration and all connections.
/// Queue:   accessors: any. `evaluateWithRequest`: the queue of each connection, several at once.
class CORVANE_EXPORT VELRoute : public std::enable_shared_from_this<VELRoute> {
 public:
  /// Raises "Must be initialized with -initWithRegularExpression:".
  VELRoute();
  explicit VELRoute(std::shared_ptr<const VELRegularExpression> regularExpression);
  /// Matches every path that begins with `path`, taken literally; a missing "/" is put before it.
  /// Shape:   "/files" matches "/files", "/files/a.txt" and "/filesystem".
  /// Errors:  raises "Could not build regular expression from path: ...".
  VELRoute(std::string_view path, bool caseInsensitive);
  VELRoute(const VELRoute&) = delete;
  VELRoute& operator=(const VELRoute&) = delete;
  virtual ~VELRoute();

  /// Answers the request: calls `responseHandler` once, now or later, from any thread. A route that
  /// has nothing to serve answers with a `VELNotFoundResponse`.
  /// Queue:   the connection's. Blocking it holds up that connection only.
  /// Errors:  what it throws is logged and closes the connection. The base raises.
  virtual void evaluateWithRequest(std::shared_ptr<VELRequest> request,
                                   VELResponseHandler responseHandler);

  /// The methods that the route accepts; none means every method.
  /// Default: HEAD and GET.
  virtual VELMethodList allowedHTTPMethods() const;
  /// Shape:   stored in upper case; an empty list accepts no method.
  void setAllowedHTTPMethods(const std::vector<std::string>& allowedHTTPMethods);

  std::shared_ptr<const VELRegularExpression> regularExpression() const;
  void setRegularExpression(std::shared_ptr<const VELRegularExpression> regularExpression);
  std::optional<std::string> name() const;
  void setName(std::optional<std::string> name);
  /// Who has to let a request through before the route gets it, once the configuration has a
  /// `VELAuthenticationMiddleware`.
  /// Default: nobody, and the route is open.
  std::vector<std::shared_ptr<VELAuthenticator>> authenticators() const;
  /// Errors:  raises an invalid-argument exception when one of them is none.
  void setAuthenticators(std::vector<std::shared_ptr<VELAuthenticator>> authenticators);

  /// One line for logs: the class, the address and the name, if there is one.
  virtual std::string description() const;

 private:
  // Whether there are authenticators: open routes need not lock to know it.
  std::atomic<bool> is_guarded_{false};
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<const VELRegularExpression> regular_expression_;
  VELMethodList allowed_methods_;
  std::optional<std::string> name_;
  std::vector<std::shared_ptr<VELAuthenticator>> authenticators_;
};
