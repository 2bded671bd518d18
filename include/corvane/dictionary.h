// VELDictionary: texts by name, as headers and parameters are, and the form decoder that makes one.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "corvane/export.h"

/// The order of the keys of a `VELDictionary`: by bytes, with or without regard to the case of ASCII
/// letters. Looking up a `std::string_view` makes no string.
struct CORVANE_EXPORT VELKeyOrder {
  using is_transparent = void;

  /// Default: false.
  bool ignoresCase = false;

  bool operator()(std::string_view a, std::string_view b) const noexcept;
};

/// Texts by name.
///
/// ```cpp
/// VELDictionary headers(VELKeyOrder{true});
/// headers["Content-Type"] = "text/plain";
/// bool found = headers.find("content-type") != headers.end();
/// ```
/// A copy keeps the order of its source.
using VELDictionary = std::map<std::string, std::string, VELKeyOrder>;

/// Decodes application/x-www-form-urlencoded text.
/// Shape:   a later pair replaces an earlier one of the same key; a name without "=" has an empty value;
///          what follows a second "=" of a pair is dropped; empty keys are skipped.
/// Errors:  a key with a malformed escape, or that is not UTF-8 once decoded, is skipped with its
///          value; such a value becomes empty.
CORVANE_EXPORT VELDictionary vel_dictionaryWithHTTPFormEncodedString(std::string_view string);
