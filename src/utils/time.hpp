#pragma once

#include <cstdint>
#include <string>

// Time helpers. Pure functions of their arguments; safe to call from any thread.
namespace qm::utils::time {

// Reads a duration in microseconds: decimal digits (std::strtoul, base 10) followed directly by
// nothing (microseconds) or by exactly one of "ms", "s", "m", "h", "d" or "ns". "ns" is accepted
// but deliberately leaves the number as it is: "5ns" is 5 microseconds, as it has always been read.
// The product is not range-checked and wraps as unsigned 64-bit arithmetic does. Once digits were
// read `out` holds the plain number, even when the suffix is then refused.
[[nodiscard]] bool try_parse_timer(const std::string& text, std::uint64_t& out);

}  // namespace qm::utils::time
