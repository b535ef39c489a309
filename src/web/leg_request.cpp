#include "web/leg_request.hpp"

#include <algorithm>
#include <system_error>

namespace qm::web {

bool is_leg_uuid(std::string_view text) {
    constexpr std::size_t LENGTH = 36;
    if (text.size() != LENGTH) {
        return false;
    }
    for (std::size_t i = 0; i < LENGTH; ++i) {
        const char c = text[i];
        const bool dash_place = i == 8 || i == 13 || i == 18 || i == 23;
        const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
        if (dash_place ? c != '-' : !hex) {
            return false;
        }
    }
    return true;
}

std::optional<std::filesystem::path> path_inside(const std::filesystem::path& storage_root,
                                                 const std::filesystem::path& relative) {
    if (relative.empty() || relative.is_absolute()) {
        return std::nullopt;
    }
    std::error_code error;
    const std::filesystem::path resolved =
        std::filesystem::weakly_canonical(storage_root / relative, error);
    if (error) {
        return std::nullopt;
    }
    // Component by component, so that "/srv/rec" does not take in "/srv/recordings".
    const auto [root_end, resolved_at] =
        std::mismatch(storage_root.begin(), storage_root.end(), resolved.begin(), resolved.end());
    if (root_end != storage_root.end()) {
        return std::nullopt;
    }
    return resolved;
}

}  // namespace qm::web
