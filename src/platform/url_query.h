// Queries: their items, and the parameters of a request that follow from them.
#pragma once

#include <string_view>
#include <vector>

#include "corvane/dictionary.h"
#include "corvane/url.h"

namespace vel {

/// The items of `query` (without "?") in order, percent-decoded. A malformed escape stands for itself,
/// and a part that does not decode to UTF-8 stays as it was sent. An empty query has no items.
std::vector<VELURLQueryItem> queryItemsOf(std::string_view query);

/// The parameters that `query` gives a request: a later item replaces an earlier one of the same name,
/// and an item without "=" has no value, so it erases the name.
VELDictionary dictionaryWithURLQuery(std::string_view query);

}  // namespace vel
