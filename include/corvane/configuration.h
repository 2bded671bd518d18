// VELConfiguration: what a server serves, and how.
#pragma once

#include <any>
#include <cstddef>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "corvane/export.h"
#include "corvane/identity.h"
#include "corvane/limits.h"
#include "corvane/middleware.h"
#include "corvane/route.h"

namespace vel {
struct ConfigurationSnapshot;
}

/// Routes, middlewares, variables, certificates and times of a server. Each connection works on the
/// state at the moment when it was accepted, so editing never disturbs a request.
///
/// ```cpp
/// auto configuration = std::make_shared<VELConfiguration>();
/// configuration->addRoute(std::make_shared<VELBlockRoute>("/", false));
/// configuration->setKeepAliveInterval(5.0);
/// configuration->setValueForVariable(std::string("staging"), "environment");
/// std::any value = (*configuration)["environment"];
/// ```
/// Queue:   any thread may read and edit.
/// Errors:  an index beyond the end raises a range exception, no object an invalid-argument
///          exception; the configuration is unchanged then and stays usable.
class CORVANE_EXPORT VELConfiguration {
 public:
  using Routes = std::vector<std::shared_ptr<VELRoute>>;
  using Middlewares = std::vector<std::shared_ptr<VELMiddleware>>;
  using Variables = std::map<std::string, std::any>;

  /// Default: no routes, middlewares, variables or certificates; keep-alive 15 s.
  VELConfiguration();
  VELConfiguration(const VELConfiguration&) = delete;
  VELConfiguration& operator=(const VELConfiguration&) = delete;
  virtual ~VELConfiguration();

  /// A configuration of the same class that shares the route and middleware objects.
  virtual std::shared_ptr<VELConfiguration> copy() const;

  Routes routes() const;
  void setRoutes(Routes routes);
  void addRoute(std::shared_ptr<VELRoute> route);
  /// Shape:   an index equal to the count appends.
  void insertRoute(std::shared_ptr<VELRoute> route, size_t index);
  void removeRouteAtIndex(size_t index);
  /// Removes every occurrence.
  void removeRoute(const std::shared_ptr<VELRoute>& route);

  Middlewares middlewares() const;
  void setMiddlewares(Middlewares middlewares);
  void addMiddleware(std::shared_ptr<VELMiddleware> middleware);
  /// Shape:   an index equal to the count appends.
  void insertMiddleware(std::shared_ptr<VELMiddleware> middleware, size_t index);
  void removeMiddlewareAtIndex(size_t index);
  /// Removes every occurrence.
  void removeMiddleware(const std::shared_ptr<VELMiddleware>& middleware);

  Variables variables() const;
  void setVariables(Variables variables);
  /// Empty when the variable was never set.
  std::any valueForVariable(const std::string& name) const;
  /// An empty value removes the variable.
  void setValueForVariable(std::any value, const std::string& name);

  /// The identity first, then its chain; empty serves plain HTTP.
  VELCertificateList SSLCertificates() const;
  void setSSLCertificates(VELCertificateList certificates);

  /// Shape:   seconds of idleness after an answer; 0 or less: no timer.
  double keepAliveInterval() const;
  void setKeepAliveInterval(double seconds);

  VELLimits limits() const;
  void setLimits(const VELLimits& limits);
  /// Default: `VELProfile::kClassic`.
  VELProfile profile() const;
  void setProfile(VELProfile profile);

  /// Reads a variable.
  std::any operator[](const std::string& name) const { return valueForVariable(name); }
  /// Sets a property, not a variable, by its name: "routes", "middlewares", "variables",
  /// "SSLCertificates", "keepAliveInterval", "limits" or "profile", with a value of its type.
  /// Errors:  raises an unknown-key exception for any other name, an invalid-argument exception for
  ///          a value of another type.
  void setObjectForKeyedSubscript(std::any value, const std::string& key);

  /// For the library's own use: the present state, shared until the next edit.
  std::shared_ptr<const vel::ConfigurationSnapshot> snapshot() const;

 private:
  template <typename Change>
  void edit(const Change& change);

  mutable std::shared_mutex mutex_;
  // Guarded by mutex_; replaced as a whole by every edit.
  std::shared_ptr<const vel::ConfigurationSnapshot> snapshot_;
};
