// Reading numbers from texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "corvane/export.h"

/// Reads the decimal number at the start of `string`.
/// Shape:   leading white space is skipped, a sign is accepted (a minus sign wraps modulo 2^64), and
///          whatever follows the digits is ignored.
/// Errors:  false when there is no text (`value` stays as it is), when there are no digits (`value`
///          becomes 0), and above 2^64 - 1 (`value` becomes that maximum).
CORVANE_EXPORT bool vel_parseString(std::optional<std::string_view> string, uint64_t* value);
