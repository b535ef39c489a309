#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "catalog/catalog_row.hpp"

// How `quillmar find` reads times and prints the legs it finds. Plain functions; any thread.

namespace qm::catalog {

// Microseconds since the epoch of a UTC time written "2026-11-24T11:52:00Z", "2026-11-24T11:52",
// "2026-11-24 11:52" or "2026-11-24 11:52:00" (seconds optional, "Z" optional, "T" or a space);
// none for anything else, also for a date or time that does not exist.
std::optional<std::uint64_t> parse_utc_time(const std::string& text);

// One line per leg, without a newline:
//   START DURATIONs CALL_ID UUID LEG side0=FRAMES/LOST side1=FRAMES/LOST PATH
// START is the UTC start with microseconds, DURATION the seconds from the start to the last
// packet (three decimals), CALL_ID "-" when unknown, PATH "removed" for a leg that has gone and
// the archive's URL for an archived one.
std::string find_line(const CatalogRow& row);

// The row as JSON: the leg summary's document (as in "leg.json") with "state", "removed_at_us"
// and "removed_at_utc" (null unless removed), "archive_url", "archived_at_us" and
// "archived_at_utc" (null unless archived) added.
Json row_json(const CatalogRow& row);

// row_json on one line.
std::string find_json(const CatalogRow& row);

}  // namespace qm::catalog
