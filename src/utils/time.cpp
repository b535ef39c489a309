#include "utils/time.hpp"

#include <array>
#include <cerrno>
#include <chrono>
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

// strtoul takes a minus sign and negates in unsigned arithmetic: "-1" would be the largest value.
bool is_negative(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\n\v\f\r");
    return first != std::string::npos && text[first] == '-';
}

bool within_limit(std::uint64_t value, std::uint64_t multiplier, std::uint64_t& out) {
    std::uint64_t product = 0;
    if (__builtin_mul_overflow(value, multiplier, &product) || product > MAX_TIMER_US) {
        return false;
    }
    out = product;
    return true;
}

}  // namespace

bool try_parse_timer(const std::string& text, std::uint64_t& out) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || is_negative(text)) {
        return false;
    }
    out = value;
    const std::string_view rest = std::string_view(text).substr(end - text.c_str());
    if (rest.empty()) {
        return within_limit(value, 1, out);
    }
    for (const TimerUnit& unit : TIMER_UNITS) {
        if (rest == unit.suffix) {
            return within_limit(value, unit.multiplier, out);
        }
    }
    return false;
}

std::uint64_t now_us() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

}  // namespace qm::utils::time
