#pragma once

#include <cstdint>
#include <string_view>

namespace qm::log {

// Severity of a message; a smaller number is more severe. SYSTEM carries the service's own
// life-cycle lines and is never filtered out by a sane threshold.
enum class Level : std::int32_t {
    SYSTEM = 0,
    ERROR = 1,
    WARNING = 2,
    INFO = 3,
    DEBUG = 4,
    TRACE = 5,
};

// The level's name: "SYSTEM", "ERROR", ... An out-of-range value gives "".
std::string_view level_to_string(Level level);

// Blanks that pad the level's name to seven characters.
std::string_view level_to_spaces(Level level);

// The syslog priority of the level (LOG_NOTICE for SYSTEM, LOG_ERR for ERROR, ...).
int level_to_syslevel(Level level);

// Exact, case-sensitive match against the six names; leaves `out` alone on failure.
[[nodiscard]] bool try_parse_level(std::string_view text, Level& out);

}  // namespace qm::log
