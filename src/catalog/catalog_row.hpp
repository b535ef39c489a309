#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "catalog/leg_summary.hpp"

// What the catalogue holds about one leg, and how it is asked for. A row is keyed by the leg's
// uuid and its recorder ("host:port", from the summary's host and port): the same leg seen twice
// by one recorder is one row, and recorders sharing a catalogue never overwrite each other.
// Plain values; any thread.

namespace qm::catalog {

// `recorded` while the leg's directory is in the storage; `removed` once it has gone; `archived`
// once an archiver has a verified copy in object storage, whether or not the local directory is
// still there. An archived leg stays archived: neither the recorder nor the storage cleanup turns
// it back.
enum class RowState : std::uint8_t { RECORDED, REMOVED, ARCHIVED };

std::string_view state_name(RowState state);

struct CatalogRow {
    // Every field of the leg's summary; `summary.path` is the leg's directory relative to the
    // storage root.
    LegSummary summary;
    RowState state = RowState::RECORDED;
    // When the directory was found gone, in microseconds since the epoch; set only when removed.
    std::optional<std::uint64_t> removed_at_us;
    // Where the archiver put the leg's files ("s3://BUCKET/KEY-PREFIX/"), and when it recorded
    // that, in microseconds since the epoch; set only when archived.
    std::optional<std::string> archive_url;
    std::optional<std::uint64_t> archived_at_us;

    bool operator==(const CatalogRow&) const = default;
};

// The row of a leg whose directory is in the storage.
CatalogRow recorded_row(LegSummary summary);

// "host:port" of the recorder that wrote the leg.
std::string recorder_name(const LegSummary& summary);

// What identifies a row: the leg's uuid and its recorder ("host:port").
struct LegKey {
    std::string uuid;
    std::string recorder;

    bool operator==(const LegKey&) const = default;
};

LegKey key_of(const CatalogRow& row);

// What `find` returns: every filter that is set must hold. Times are microseconds since the
// epoch and select on the leg's start: `from_us` <= start < `to_us`.
struct FindQuery {
    std::optional<std::string> call_id;
    std::optional<std::string> uuid;
    std::optional<std::string> recorder;
    std::optional<std::uint64_t> from_us;
    std::optional<std::uint64_t> to_us;
    // Removed legs are left out unless asked for; recorded and archived ones are always in.
    bool include_removed = false;
    // Unset: every row.
    std::optional<std::size_t> limit;
    std::size_t offset = 0;
};

// A directory of the storage (a day, an hour or a minute, relative to the storage root:
// "2026-11-24/13") that was removed with the legs under it, and when.
struct RemovedDirectory {
    std::string directory;
    std::uint64_t removed_at_us = 0;

    bool operator==(const RemovedDirectory&) const = default;
};

// What one `upsert` did: rows new to the catalogue, rows that differed and were rewritten, rows
// that were already as given.
struct UpsertCounts {
    std::size_t added = 0;
    std::size_t updated = 0;
    std::size_t unchanged = 0;

    bool operator==(const UpsertCounts&) const = default;
};

// The legs that wait for an archiver (recorded, not archived), and their bytes.
struct ArchiveBacklog {
    std::uint64_t legs = 0;
    std::uint64_t bytes = 0;

    bool operator==(const ArchiveBacklog&) const = default;
};

}  // namespace qm::catalog
