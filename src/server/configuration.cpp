// VELConfiguration: one immutable snapshot, replaced as a whole by every edit. Connections read the
// snapshot; who reads what is in src/http/.
#include "corvane/configuration.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "corvane/error.h"
#include "http/configuration_snapshot.h"

namespace {

using Snapshot = vel::ConfigurationSnapshot;

[[noreturn]] void raiseBeyondEnd(size_t index, size_t count) {
  throw VELException(VELRangeException, "Index " + std::to_string(index) +
                                            " is beyond the end of a list of " +
                                            std::to_string(count));
}

template <typename Object>
void requireObject(const std::shared_ptr<Object>& object) {
  if (!object) throw VELException(VELInvalidArgumentException, "An object must not be none");
}

template <typename Object>
void requireObjects(const std::vector<std::shared_ptr<Object>>& objects) {
  for (const auto& object : objects) requireObject(object);
}

template <typename Object>
void insertAt(std::vector<Object>* list, Object object, size_t index) {
  requireObject(object);
  if (index > list->size()) raiseBeyondEnd(index, list->size());
  list->insert(list->begin() + static_cast<ptrdiff_t>(index), std::move(object));
}

template <typename Object>
void removeAt(std::vector<Object>* list, size_t index) {
  if (index >= list->size()) raiseBeyondEnd(index, list->size());
  list->erase(list->begin() + static_cast<ptrdiff_t>(index));
}

/// The value of a property given by name. None stands for the empty value where there is one.
template <typename Value>
Value valueOfProperty(std::any* value, const std::string& key) {
  if constexpr (!std::is_arithmetic_v<Value> && !std::is_enum_v<Value>) {
    if (!value->has_value()) return {};
  }
  if (auto* const typed = std::any_cast<Value>(value)) return std::move(*typed);
  throw VELException(VELInvalidArgumentException,
                     "The value for the property \"" + key + "\" is not of its type");
}

double secondsOfProperty(std::any* value, const std::string& key) {
  if (const auto* const whole = std::any_cast<int>(value)) return *whole;
  if (const auto* const wide = std::any_cast<int64_t>(value)) return static_cast<double>(*wide);
  if (const auto* const real = std::any_cast<float>(value)) return static_cast<double>(*real);
  return valueOfProperty<double>(value, key);
}

}  // namespace

VELConfiguration::VELConfiguration() : snapshot_(std::make_shared<const Snapshot>()) {}

VELConfiguration::~VELConfiguration() = default;

std::shared_ptr<VELConfiguration> VELConfiguration::copy() const {
  auto copy = std::make_shared<VELConfiguration>();
  copy->snapshot_ = snapshot();
  return copy;
}

std::shared_ptr<const Snapshot> VELConfiguration::snapshot() const {
  const std::shared_lock lock(mutex_);
  return snapshot_;
}

/// Replaces the state by a changed copy of it. What `change` throws leaves everything as it was.
template <typename Change>
void VELConfiguration::edit(const Change& change) {
  // Goes away after the lock, and with it perhaps objects of the host.
  std::shared_ptr<const Snapshot> state;
  const std::unique_lock lock(mutex_);
  auto changed = std::make_shared<Snapshot>(*snapshot_);
  change(*changed);
  state = std::exchange(snapshot_, std::move(changed));
}

VELConfiguration::Routes VELConfiguration::routes() const { return snapshot()->routes; }

void VELConfiguration::setRoutes(Routes routes) {
  requireObjects(routes);
  edit([&](Snapshot& state) { state.routes.swap(routes); });
}

void VELConfiguration::addRoute(std::shared_ptr<VELRoute> route) {
  edit([&](Snapshot& state) { insertAt(&state.routes, route, state.routes.size()); });
}

void VELConfiguration::insertRoute(std::shared_ptr<VELRoute> route, size_t index) {
  edit([&](Snapshot& state) { insertAt(&state.routes, route, index); });
}

void VELConfiguration::removeRouteAtIndex(size_t index) {
  edit([&](Snapshot& state) { removeAt(&state.routes, index); });
}

void VELConfiguration::removeRoute(const std::shared_ptr<VELRoute>& route) {
  edit([&](Snapshot& state) { std::erase(state.routes, route); });
}

VELConfiguration::Middlewares VELConfiguration::middlewares() const {
  return snapshot()->middlewares;
}

void VELConfiguration::setMiddlewares(Middlewares middlewares) {
  requireObjects(middlewares);
  edit([&](Snapshot& state) { state.middlewares.swap(middlewares); });
}

void VELConfiguration::addMiddleware(std::shared_ptr<VELMiddleware> middleware) {
  edit(
      [&](Snapshot& state) { insertAt(&state.middlewares, middleware, state.middlewares.size()); });
}

void VELConfiguration::insertMiddleware(std::shared_ptr<VELMiddleware> middleware, size_t index) {
  edit([&](Snapshot& state) { insertAt(&state.middlewares, middleware, index); });
}

void VELConfiguration::removeMiddlewareAtIndex(size_t index) {
  edit([&](Snapshot& state) { removeAt(&state.middlewares, index); });
}

void VELConfiguration::removeMiddleware(const std::shared_ptr<VELMiddleware>& middleware) {
  edit([&](Snapshot& state) { std::erase(state.middlewares, middleware); });
}

VELConfiguration::Variables VELConfiguration::variables() const { return snapshot()->variables; }

void VELConfiguration::setVariables(Variables variables) {
  edit([&](Snapshot& state) { state.variables.swap(variables); });
}

std::any VELConfiguration::valueForVariable(const std::string& name) const {
  const auto state = snapshot();
  const auto variable = state->variables.find(name);
  return variable == state->variables.end() ? std::any() : variable->second;
}

void VELConfiguration::setValueForVariable(std::any value, const std::string& name) {
  edit([&](Snapshot& state) {
    if (value.has_value()) {
      state.variables.insert_or_assign(name, value);
    } else {
      state.variables.erase(name);
    }
  });
}

VELCertificateList VELConfiguration::SSLCertificates() const { return snapshot()->certificates; }

void VELConfiguration::setSSLCertificates(VELCertificateList certificates) {
  edit([&](Snapshot& state) { state.certificates.swap(certificates); });
}

double VELConfiguration::keepAliveInterval() const { return snapshot()->keep_alive_interval; }

void VELConfiguration::setKeepAliveInterval(double seconds) {
  edit([&](Snapshot& state) { state.keep_alive_interval = seconds; });
}

VELLimits VELConfiguration::limits() const { return snapshot()->limits; }

void VELConfiguration::setLimits(const VELLimits& limits) {
  edit([&](Snapshot& state) { state.limits = limits; });
}

VELProfile VELConfiguration::profile() const { return snapshot()->profile; }

void VELConfiguration::setProfile(VELProfile profile) {
  edit([&](Snapshot& state) { state.profile = profile; });
}

void VELConfiguration::setObjectForKeyedSubscript(std::any value, const std::string& key) {
  if (key == "routes") {
    setRoutes(valueOfProperty<Routes>(&value, key));
  } else if (key == "middlewares") {
    setMiddlewares(valueOfProperty<Middlewares>(&value, key));
  } else if (key == "variables") {
    setVariables(valueOfProperty<Variables>(&value, key));
  } else if (key == "SSLCertificates") {
    setSSLCertificates(valueOfProperty<VELCertificateList>(&value, key));
  } else if (key == "keepAliveInterval") {
    setKeepAliveInterval(secondsOfProperty(&value, key));
  } else if (key == "limits") {
    setLimits(valueOfProperty<VELLimits>(&value, key));
  } else if (key == "profile") {
    setProfile(valueOfProperty<VELProfile>(&value, key));
  } else {
    throw VELException(VELUnknownKeyException,
                       "VELConfiguration has no property named \"" + key + "\"");
  }
}
