// Fields that the library itself asks for: found while a head is parsed, so that asking is free.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/ascii.h"

namespace vel {

enum class KnownField : uint8_t {
  kNone,
  kConnection,
  kContentLength,
  kContentType,
  kCookie,
  kExpect,
  kHost,
  kRange,
  kTransferEncoding,
};
inline constexpr size_t kKnownFieldCount = 9;

/// Which known field `name` is, in any letter case; most clients write the usual one.
inline KnownField knownField(std::string_view name) noexcept {
  const auto if_named = [name](std::string_view usual, KnownField field) {
    return name == usual || equalsIgnoringCase(name, usual) ? field : KnownField::kNone;
  };
  switch (name.size()) {
    case 4:
      return if_named("Host", KnownField::kHost);
    case 5:
      return if_named("Range", KnownField::kRange);
    case 6:
      return toLower(name[0]) == 'c' ? if_named("Cookie", KnownField::kCookie)
                                     : if_named("Expect", KnownField::kExpect);
    case 10:
      return if_named("Connection", KnownField::kConnection);
    case 12:
      return if_named("Content-Type", KnownField::kContentType);
    case 14:
      return if_named("Content-Length", KnownField::kContentLength);
    case 17:
      return if_named("Transfer-Encoding", KnownField::kTransferEncoding);
    default:
      return KnownField::kNone;
  }
}

}  // namespace vel
