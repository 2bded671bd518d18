#include "http/prefix_tree.h"

#include <algorithm>

namespace vel {

template <bool kIgnoresCase>
PrefixTree<kIgnoresCase>::PrefixTree(std::vector<Entry> entries) {
  if (entries.empty()) return;
  if constexpr (kIgnoresCase) {
    for (Entry& entry : entries) entry.first = lowercased(entry.first);
  }
  std::sort(entries.begin(), entries.end());
  // Of equal texts the one with the smallest number, which now comes first, is the one that counts.
  const auto same = [](const Entry& a, const Entry& b) { return a.first == b.first; };
  entries.erase(std::unique(entries.begin(), entries.end(), same), entries.end());
  nodes_.emplace_back();
  build(0, entries.data(), entries.data() + entries.size(), 0);
}

// Gives `node` the texts from `first` up to `last`, which are sorted and share their first `depth`
// bytes.
template <bool kIgnoresCase>
void PrefixTree<kIgnoresCase>::build(size_t node, const Entry* first, const Entry* last,
                                     size_t depth) {
  const std::string& least = first->first;
  const std::string& greatest = (last - 1)->first;
  size_t shared = depth;
  while (shared < least.size() && shared < greatest.size() && least[shared] == greatest[shared]) {
    ++shared;
  }
  nodes_[node].label = least.substr(depth, shared - depth);
  if (least.size() == shared) {
    nodes_[node].number = first->second;
    ++first;
  }
  struct Group {
    const Entry* first;
    const Entry* last;
  };
  std::vector<Group> groups;
  for (const Entry* entry = first; entry != last; ++entry) {
    if (entry == first || entry->first[shared] != (entry - 1)->first[shared]) {
      groups.push_back({entry, entry});
    }
    groups.back().last = entry + 1;
  }
  const size_t children = nodes_.size();
  nodes_[node].first_child = static_cast<uint32_t>(children);
  nodes_[node].child_count = static_cast<uint32_t>(groups.size());
  nodes_.resize(children + groups.size());
  for (size_t i = 0; i < groups.size(); ++i) {
    build(children + i, groups[i].first, groups[i].last, shared);
  }
}

template <bool kIgnoresCase>
bool PrefixTree<kIgnoresCase>::labelMatches(const Node& node,
                                            std::string_view rest) const noexcept {
  if (rest.size() < node.label.size()) return false;
  for (size_t i = 0; i < node.label.size(); ++i) {
    if (folded(rest[i]) != node.label[i]) return false;
  }
  return true;
}

template <bool kIgnoresCase>
auto PrefixTree<kIgnoresCase>::childFor(const Node& node, char c) const noexcept -> const Node* {
  const Node* const first = nodes_.data() + node.first_child;
  const Node* const last = first + node.child_count;
  const auto byte = static_cast<unsigned char>(folded(c));
  const Node* const child = std::lower_bound(first, last, byte, [](const Node& a, unsigned char b) {
    return static_cast<unsigned char>(a.label.front()) < b;
  });
  return child != last && static_cast<unsigned char>(child->label.front()) == byte ? child
                                                                                   : nullptr;
}

template <bool kIgnoresCase>
auto PrefixTree<kIgnoresCase>::find(std::string_view subject) const noexcept -> Found {
  Found best;
  if (nodes_.empty()) return best;
  const Node* node = nodes_.data();
  size_t depth = 0;
  while (node != nullptr && labelMatches(*node, subject.substr(depth))) {
    depth += node->label.size();
    if (node->number < best.number) best = {node->number, depth};
    node = depth < subject.size() ? childFor(*node, subject[depth]) : nullptr;
  }
  return best;
}

template class PrefixTree<false>;
template class PrefixTree<true>;

}  // namespace vel
