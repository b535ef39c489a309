#pragma once

#include <cstdint>
#include <string>

#include "io/quillmar_format.hpp"

// Where a recorded session lives under the storage root. Pure apart from its log line; any
// thread.

namespace qm::io {

// "<UTC day>/<hour>/<minute>/<uuid>/media.qm" for a session that started at `ts` (microseconds
// since the epoch): for example "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff/media.qm".
// A time that cannot be rendered gives "0000-00-00/00/00" and an ERROR line, so that the session
// is still recorded.
std::string session_path(std::uint64_t ts, const Uuid& uuid);

}  // namespace qm::io
