#include "utils/path_inside.hpp"

#include <algorithm>
#include <system_error>

namespace qm::utils {

std::optional<std::filesystem::path> path_inside(const std::filesystem::path& root,
                                                 const std::filesystem::path& relative) {
    if (relative.empty() || relative.is_absolute()) {
        return std::nullopt;
    }
    std::error_code error;
    const std::filesystem::path resolved =
        std::filesystem::weakly_canonical(root / relative, error);
    if (error) {
        return std::nullopt;
    }
    // Component by component, so that "/srv/rec" does not take in "/srv/recordings".
    const auto [root_end, resolved_at] =
        std::mismatch(root.begin(), root.end(), resolved.begin(), resolved.end());
    if (root_end != root.end()) {
        return std::nullopt;
    }
    return resolved;
}

}  // namespace qm::utils
