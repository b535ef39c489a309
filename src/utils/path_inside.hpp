#pragma once

#include <filesystem>
#include <optional>

// Where a path taken from outside (a catalogue row, a request) may lead: only inside a root the
// process chose. A plain function; any thread.

namespace qm::utils {

// `relative` under `root`, canonical, when it lies inside the root; none for a path that leaves
// it (by "..", an absolute path or a symbolic link) or cannot be resolved.
// REQUIRES: `root` canonical (std::filesystem::canonical).
std::optional<std::filesystem::path> path_inside(const std::filesystem::path& root,
                                                 const std::filesystem::path& relative);

}  // namespace qm::utils
