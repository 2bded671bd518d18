// Habits: every decision of sessions that departs from what RFC 6455 asks for. Each is one function, asked in
// one place.
#pragma once

#include <cstdint>

namespace vel {

/// Whether a frame may have the reserved bits `bits`: any, they are ignored (RFC 6455 §5.2 fails the
/// connection).
constexpr bool admitsReservedBits(uint8_t /*bits*/) noexcept { return true; }

/// Whether a control frame may have `length` bytes: as many as it likes (RFC 6455 §5.5: 125 at most).
constexpr bool admitsControlLength(uint64_t /*length*/) noexcept { return true; }

/// Whether a peer may close with the status `code`: with any (RFC 6455 §7.4).
constexpr bool admitsCloseStatus(uint16_t /*code*/) noexcept { return true; }

/// The opcode by which a message of several frames is known: that of the last one, 0, which is not the
/// opcode of any message. So fragments end the session with 1002 (RFC 6455 §5.4 joins them), and what
/// they carry is not kept.
constexpr uint8_t opcodeOfFragments(uint8_t last) noexcept { return last; }

/// The status that a close frame carries for the status `code` that a host gives: its low 16 bits, be it
/// one that RFC 6455 §7.4.1 reserves.
constexpr uint16_t sentCloseStatus(int64_t code) noexcept { return static_cast<uint16_t>(code); }

}  // namespace vel
