// The route base: its expression, its methods, its name, its authenticators. Which route gets a
// request is decided in src/http/, and what the authenticators say of it is the middleware's.
#include "corvane/route.h"

#include <algorithm>
#include <utility>

#include "corvane/error.h"
#include "http/route_index.h"
#include "platform/ascii.h"
#include "platform/object_description.h"

namespace {

const VELMethodList& defaultMethods() {
  // Never destroyed: routes may outlive the statics of this file.
  static const auto* const methods = new VELMethodList(
      std::make_shared<const std::vector<std::string>>(std::vector<std::string>{"HEAD", "GET"}));
  return *methods;
}

/// Anchored at the start only, which is meant: a route has everything below its path.
std::shared_ptr<const VELRegularExpression> expressionForPath(std::string_view path,
                                                              bool caseInsensitive) {
  std::string literal(path);
  if (!literal.starts_with('/')) literal.insert(literal.begin(), '/');
  VELError error;
  auto expression = VELRegularExpression::regularExpressionWithPattern(
      "^" + VELRegularExpression::escapedPatternForString(literal),
      caseInsensitive ? VELRegularExpressionOptions::kCaseInsensitive
                      : VELRegularExpressionOptions::kNone,
      &error);
  if (!expression) {
    throw VELException(VELInvalidArgumentException,
                       "Could not build regular expression from path: " + error.description());
  }
  return expression;
}

}  // namespace

VELRoute::VELRoute() {
  throw VELException(VELInvalidArgumentException,
                     "Must be initialized with -initWithRegularExpression:");
}

VELRoute::VELRoute(std::shared_ptr<const VELRegularExpression> regularExpression)
    : regular_expression_(std::move(regularExpression)), allowed_methods_(defaultMethods()) {}

VELRoute::VELRoute(std::string_view path, bool caseInsensitive)
    : VELRoute(expressionForPath(path, caseInsensitive)) {}

VELRoute::~VELRoute() = default;

void VELRoute::evaluateWithRequest(std::shared_ptr<VELRequest> /*request*/,
                                   VELResponseHandler /*responseHandler*/) {
  throw VELException(VELInvalidArgumentException,
                     "evaluateWithRequest:responseHandler: must be overridden by subclasses.");
}

VELMethodList VELRoute::allowedHTTPMethods() const {
  const std::lock_guard lock(mutex_);
  return allowed_methods_;
}

void VELRoute::setAllowedHTTPMethods(const std::vector<std::string>& allowedHTTPMethods) {
  std::vector<std::string> methods;
  methods.reserve(allowedHTTPMethods.size());
  for (const std::string& method : allowedHTTPMethods) methods.push_back(vel::uppercased(method));
  auto list = std::make_shared<const std::vector<std::string>>(std::move(methods));
  const std::lock_guard lock(mutex_);
  allowed_methods_.swap(list);
}

std::shared_ptr<const VELRegularExpression> VELRoute::regularExpression() const {
  const std::lock_guard lock(mutex_);
  return regular_expression_;
}

void VELRoute::setRegularExpression(std::shared_ptr<const VELRegularExpression> regularExpression) {
  {
    const std::lock_guard lock(mutex_);
    regular_expression_.swap(regularExpression);
  }
  vel::noteRouteExpressionChange();
}

std::optional<std::string> VELRoute::name() const {
  const std::lock_guard lock(mutex_);
  return name_;
}

void VELRoute::setName(std::optional<std::string> name) {
  const std::lock_guard lock(mutex_);
  name_.swap(name);
}

std::vector<std::shared_ptr<VELAuthenticator>> VELRoute::authenticators() const {
  if (!is_guarded_.load(std::memory_order_acquire)) return {};
  const std::lock_guard lock(mutex_);
  return authenticators_;
}

void VELRoute::setAuthenticators(std::vector<std::shared_ptr<VELAuthenticator>> authenticators) {
  if (std::find(authenticators.begin(), authenticators.end(), nullptr) != authenticators.end()) {
    throw VELException(VELInvalidArgumentException, "An authenticator must not be none");
  }
  const std::lock_guard lock(mutex_);
  authenticators_.swap(authenticators);
  is_guarded_.store(!authenticators_.empty(), std::memory_order_release);
}

std::string VELRoute::description() const {
  std::string text = vel::objectDescription(typeid(*this), this);
  const std::optional<std::string> label = name();
  if (label) text.insert(text.size() - 1, " : " + *label);
  return text;
}
