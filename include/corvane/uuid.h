// VELUUID: the identity of a connection, a request or a session.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/export.h"

/// A universally unique identifier (RFC 9562).
///
/// ```cpp
/// VELUUID identifier = VELUUID::UUID();
/// std::string text = identifier.UUIDString();
/// bool same = VELUUID::UUIDWithString(text) == identifier;
/// ```
class CORVANE_EXPORT VELUUID {
 public:
  /// The nil UUID, all bits zero.
  constexpr VELUUID() noexcept = default;
  constexpr explicit VELUUID(const std::array<uint8_t, 16>& bytes) noexcept : bytes_(bytes) {}

  /// A fresh random UUID (version 4).
  /// Errors:  raises an internal-inconsistency exception when the system has no random bytes.
  static VELUUID UUID();
  /// The UUID that `string` spells in either letter case, if it spells one.
  static std::optional<VELUUID> UUIDWithString(std::string_view string);

  /// Shape:   36 characters, upper-case hexadecimal with hyphens.
  std::string UUIDString() const;
  constexpr const std::array<uint8_t, 16>& bytes() const noexcept { return bytes_; }

  friend constexpr bool operator==(const VELUUID&, const VELUUID&) noexcept = default;
  friend constexpr auto operator<=>(const VELUUID&, const VELUUID&) noexcept = default;

 private:
  std::array<uint8_t, 16> bytes_{};
};

template <>
struct CORVANE_EXPORT std::hash<VELUUID> {
  size_t operator()(const VELUUID& uuid) const noexcept;
};
