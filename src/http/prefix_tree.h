// PrefixTree: literal texts with a number each; finds the smallest number among the texts that a
// given text begins with. Knows nothing of routes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/ascii.h"

namespace vel {

/// A compressed tree over bytes, built once. The letter case of ASCII counts or does not.
template <bool kIgnoresCase>
class PrefixTree {
 public:
  static constexpr size_t kNone = SIZE_MAX;

  /// A text and its number.
  using Entry = std::pair<std::string, size_t>;

  PrefixTree() = default;
  explicit PrefixTree(std::vector<Entry> entries);

  bool isEmpty() const noexcept { return nodes_.empty(); }
  /// The smallest number whose text is a prefix of `subject`, and the length of that text.
  struct Found {
    size_t number = kNone;
    size_t length = 0;
  };
  Found find(std::string_view subject) const noexcept;

 private:
  // A node stands for the texts that begin with its label after its parent's. Children lie one
  // after the other, in the order of their labels' first bytes.
  struct Node {
    std::string label;
    size_t number = kNone;
    uint32_t first_child = 0;
    uint32_t child_count = 0;
  };

  static constexpr char folded(char c) noexcept { return kIgnoresCase ? toLower(c) : c; }
  void build(size_t node, const Entry* first, const Entry* last, size_t depth);
  bool labelMatches(const Node& node, std::string_view rest) const noexcept;
  const Node* childFor(const Node& node, char c) const noexcept;

  std::vector<Node> nodes_;
};

extern template class PrefixTree<false>;
extern template class PrefixTree<true>;

}  // namespace vel
