#include "log/level.hpp"

#include <syslog.h>

#include <array>

namespace qm::log {

namespace {

struct LevelInfo {
    std::string_view name;
    std::string_view spaces;
    int syslevel;
};

constexpr std::array<LevelInfo, 6> LEVELS = {{
    {"SYSTEM", " ", LOG_NOTICE},
    {"ERROR", "  ", LOG_ERR},
    {"WARNING", "", LOG_WARNING},
    {"INFO", "   ", LOG_INFO},
    {"DEBUG", "  ", LOG_DEBUG},
    {"TRACE", "  ", LOG_DEBUG},
}};

const LevelInfo* find(Level level) {
    const auto index = static_cast<std::int32_t>(level);
    if (index < 0 || index >= static_cast<std::int32_t>(LEVELS.size())) {
        return nullptr;
    }
    return &LEVELS[static_cast<std::size_t>(index)];
}

}  // namespace

std::string_view level_to_string(Level level) {
    const LevelInfo* info = find(level);
    return info ? info->name : std::string_view{};
}

std::string_view level_to_spaces(Level level) {
    const LevelInfo* info = find(level);
    return info ? info->spaces : std::string_view{};
}

int level_to_syslevel(Level level) {
    const LevelInfo* info = find(level);
    return info ? info->syslevel : LOG_DEBUG;
}

bool try_parse_level(std::string_view text, Level& out) {
    for (std::size_t i = 0; i < LEVELS.size(); ++i) {
        if (LEVELS[i].name == text) {
            out = static_cast<Level>(i);
            return true;
        }
    }
    return false;
}

}  // namespace qm::log
