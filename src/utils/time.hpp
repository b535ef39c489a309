#pragma once

#include <cstdint>
#include <string>

// Time helpers. Pure functions of their arguments (but the wall clock's); safe to call from any
// thread.
namespace qm::utils::time {

// The longest timer: 36500 days, about 100 years. Far beyond any useful period, and far enough
// below the 292 years that a signed 64-bit count of nanoseconds spans that a steady clock's "now"
// plus the timer still fits: a wait on a longer one would turn negative and return at once.
inline constexpr std::uint64_t MAX_TIMER_US = 36500ULL * 86400000000ULL;

// Reads a duration in microseconds: decimal digits (std::strtoul, base 10) followed directly by
// nothing (microseconds) or by exactly one of "ms", "s", "m", "h", "d" or "ns". "ns" is accepted
// but deliberately leaves the number as it is: "5ns" is 5 microseconds, as it has always been read.
// Refused: a minus sign (strtoul would negate in unsigned arithmetic), and a duration above
// MAX_TIMER_US, also when the unit's multiplication overflows. Once digits were read `out` holds
// the plain number, even when the suffix or the duration is then refused.
[[nodiscard]] bool try_parse_timer(const std::string& text, std::uint64_t& out);

// The wall clock in microseconds since the epoch.
std::uint64_t now_us();

}  // namespace qm::utils::time
