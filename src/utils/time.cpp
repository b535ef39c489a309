#include "utils/time.hpp"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace qm::utils::time {

namespace {

struct TimerUnit {
    std::string_view suffix;
    std::uint64_t multiplier;
};

constexpr std::array<TimerUnit, 6> TIMER_UNITS = {{
    {"ms", 1000},
    {"s", 1000000},
    {"m", 60000000},
    {"h", 3600000000},
    {"d", 86400000000},
    {"ns", 1},
}};

}  // namespace

bool try_parse_timer(const std::string& text, std::uint64_t& out) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str()) {
        return false;
    }
    out = value;
    const std::string_view rest = std::string_view(text).substr(end - text.c_str());
    if (rest.empty()) {
        return true;
    }
    for (const TimerUnit& unit : TIMER_UNITS) {
        if (rest == unit.suffix) {
            out = value * unit.multiplier;
            return true;
        }
    }
    return false;
}

}  // namespace qm::utils::time
