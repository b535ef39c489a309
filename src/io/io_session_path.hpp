#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "io/quillmar_format.hpp"

// Where a recorded session lives under the storage root. Pure functions apart from their ERROR
// line; they own nothing and may be called from any thread (gmtime_r keeps no shared state).

namespace qm::io {

// "<UTC day>/<hour>/<minute>/<uuid>/media.qm" for a session that started at `ts` (microseconds
// since the epoch), the time levels from whole seconds: for example
// "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff/media.qm". The time is clamped to the
// years 1970 to 9999, with a WARNING, so that every path sorts by time and has a four-digit year:
// a `ts` negative as a signed 64-bit count gives "1970-01-01/00/00", one after 9999 gives
// "9999-12-31/23/59". A time that cannot be rendered gives "0000-00-00/00/00" and an ERROR line,
// so that the session is still recorded.
std::string session_path(std::uint64_t ts, const Uuid& uuid);

namespace detail {

// `session_path` with the second already taken from `ts`, which only the ERROR line names, and not
// clamped. Every clamped second is one the calendar can render, so this is the way to reach the
// fallback: a second such as the largest `time_t` has no year that fits.
std::string session_path_at(std::time_t seconds, std::uint64_t ts, const Uuid& uuid);

}  // namespace detail
}  // namespace qm::io
