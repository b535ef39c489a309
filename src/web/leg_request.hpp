#pragma once

#include <string_view>

// What an API request may name, checked before anything is looked up: a leg only by its uuid (its
// files only by the catalogue's path for it, see utils::path_inside). A plain function; any
// thread.

namespace qm::web {

// Exactly 36 characters, lowercase hex digits in groups of 8-4-4-4-12 separated by dashes: the
// form the recorder writes. Anything else cannot name a leg.
bool is_leg_uuid(std::string_view text);

}  // namespace qm::web
