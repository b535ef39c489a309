#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

// What an API request may name, checked before anything is looked up: a leg by its uuid, and a
// file only by the catalogue's path for it, inside the storage. Plain functions; any thread.

namespace qm::web {

// Exactly 36 characters, lowercase hex digits in groups of 8-4-4-4-12 separated by dashes: the
// form the recorder writes. Anything else cannot name a leg.
bool is_leg_uuid(std::string_view text);

// `relative` (a catalogue path) under `storage_root`, canonical, when it lies inside the root;
// none for a path that leaves it (by "..", an absolute path or a symbolic link) or cannot be
// resolved. REQUIRES: `storage_root` canonical (std::filesystem::canonical).
std::optional<std::filesystem::path> path_inside(const std::filesystem::path& storage_root,
                                                 const std::filesystem::path& relative);

}  // namespace qm::web
