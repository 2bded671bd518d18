// Route selection: the first route, in order, whose expression matches a path. How expressions are
// compiled and matched is left to platform/regex_engine.h.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "corvane/regular_expression.h"
#include "corvane/route.h"

namespace vel {

/// Counts changes of any route's expression, so that indexes made before one are made anew.
void noteRouteExpressionChange() noexcept;

/// Finds the first matching route of one immutable list. Literal prefixes stand in a tree, so that
/// a thousand of them cost little more than one; the other expressions are tried in order, and only
/// those that come before the best literal.
/// Owner:   part of a configuration's snapshot; made when it is first asked. A copy starts empty.
/// Queue:   any, several at once. Looking up takes no lock once the index is made.
class RouteIndex {
 public:
  using Routes = std::vector<std::shared_ptr<VELRoute>>;

  RouteIndex() noexcept;
  RouteIndex(const RouteIndex& other) noexcept;
  RouteIndex& operator=(const RouteIndex&) = delete;
  ~RouteIndex();

  /// The first of `routes` whose expression matches `path`, the path of a request's URL; `result`,
  /// an empty one, becomes
  /// the match. None when no route matches. `routes` is the same list at every call, and holds the
  /// route: no count that all connections share is touched.
  VELRoute* firstMatch(const Routes& routes, std::string_view path,
                       VELTextCheckingResult* result) const;

 private:
  class Table;

  const Table& table(const Routes& routes) const;

  mutable std::atomic<const Table*> newest_{nullptr};
  mutable std::mutex mutex_;
  // Guarded by mutex_. Earlier tables stay: another thread may still be reading one.
  mutable std::vector<std::unique_ptr<const Table>> tables_;
};

}  // namespace vel
