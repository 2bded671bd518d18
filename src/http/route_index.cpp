#include "http/route_index.h"

#include <string>
#include <utility>

#include "http/prefix_tree.h"
#include "platform/regex_engine.h"
#include "platform/utf8.h"

namespace vel {

namespace {

std::atomic<uint64_t>& expressionGeneration() noexcept {
  static std::atomic<uint64_t> generation{0};
  return generation;
}

}  // namespace

void noteRouteExpressionChange() noexcept {
  expressionGeneration().fetch_add(1, std::memory_order_release);
}

/// An index of the expressions that the routes had at one moment.
class RouteIndex::Table {
 public:
  Table(const Routes& routes, uint64_t generation);

  uint64_t generation() const noexcept { return generation_; }
  VELRoute* firstMatch(const Routes& routes, std::string_view path,
                       VELTextCheckingResult* result) const;

 private:
  struct Expression {
    std::shared_ptr<const VELRegularExpression> expression;
    size_t number;
    // The expression's required head.
    std::string_view head;
  };

  static VELRoute* firstOf(const std::vector<Expression>& expressions, size_t end,
                           const Routes& routes, std::string_view path,
                           VELTextCheckingResult* result);

  const uint64_t generation_;
  PrefixTree<false> literals_;
  PrefixTree<true> caseless_literals_;
  // In the order of the routes.
  std::vector<Expression> patterns_;
  // Every expression; filled only when a literal needs more than ASCII for some paths.
  std::vector<Expression> for_wide_paths_;
};

RouteIndex::Table::Table(const Routes& routes, uint64_t generation) : generation_(generation) {
  std::vector<PrefixTree<false>::Entry> literals;
  std::vector<PrefixTree<true>::Entry> caseless;
  std::vector<Expression> all;
  bool has_wide_folds = false;
  for (size_t number = 0; number < routes.size(); ++number) {
    std::shared_ptr<const VELRegularExpression> expression = routes[number]->regularExpression();
    if (!expression) continue;
    const std::optional<LiteralPrefix>& prefix = expression->engine().literalPrefix();
    const std::string_view head = expression->engine().requiredHead();
    all.push_back({expression, number, head});
    if (!prefix) {
      patterns_.push_back({std::move(expression), number, head});
    } else if (prefix->ignoresCase) {
      caseless.emplace_back(prefix->text, number);
      has_wide_folds = has_wide_folds || prefix->hasWideFolds;
    } else {
      literals.emplace_back(prefix->text, number);
    }
  }
  literals_ = PrefixTree<false>(std::move(literals));
  caseless_literals_ = PrefixTree<true>(std::move(caseless));
  if (has_wide_folds) for_wide_paths_ = std::move(all);
}

VELRoute* RouteIndex::Table::firstOf(const std::vector<Expression>& expressions, size_t end,
                                     const Routes& routes, std::string_view path,
                                     VELTextCheckingResult* result) {
  for (const Expression& candidate : expressions) {
    if (candidate.number >= end) break;
    if (!path.starts_with(candidate.head)) continue;
    std::optional<VELTextCheckingResult> match = candidate.expression->firstMatchInString(path);
    if (!match) continue;
    *result = *std::move(match);
    return routes[candidate.number].get();
  }
  return nullptr;
}

VELRoute* RouteIndex::Table::firstMatch(const Routes& routes, std::string_view path,
                                        VELTextCheckingResult* result) const {
  if (!for_wide_paths_.empty() && !isASCII(path)) {
    return firstOf(for_wide_paths_, routes.size(), routes, path, result);
  }
  auto literal = literals_.find(path);
  if (!caseless_literals_.isEmpty()) {
    const auto caseless = caseless_literals_.find(path);
    if (caseless.number < literal.number) literal = {caseless.number, caseless.length};
  }
  if (!patterns_.empty()) {
    VELRoute* const earlier = firstOf(patterns_, literal.number, routes, path, result);
    if (earlier != nullptr) return earlier;
  }
  if (literal.number == PrefixTree<false>::kNone) return nullptr;
  result->addRange({0, literal.length});
  return routes[literal.number].get();
}

RouteIndex::RouteIndex() noexcept = default;

RouteIndex::RouteIndex(const RouteIndex& /*other*/) noexcept {}

RouteIndex::~RouteIndex() = default;

const RouteIndex::Table& RouteIndex::table(const Routes& routes) const {
  const Table* newest = newest_.load(std::memory_order_acquire);
  uint64_t generation = expressionGeneration().load(std::memory_order_acquire);
  if (newest != nullptr && newest->generation() == generation) return *newest;
  const std::lock_guard lock(mutex_);
  newest = newest_.load(std::memory_order_acquire);
  // Read before the expressions are: a change meanwhile makes the new table an old one.
  generation = expressionGeneration().load(std::memory_order_acquire);
  if (newest != nullptr && newest->generation() == generation) return *newest;
  tables_.push_back(std::make_unique<const Table>(routes, generation));
  newest_.store(tables_.back().get(), std::memory_order_release);
  return *tables_.back();
}

VELRoute* RouteIndex::firstMatch(const Routes& routes, std::string_view path,
                                 VELTextCheckingResult* result) const {
  return table(routes).firstMatch(routes, path, result);
}

}  // namespace vel
