#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "catalog/catalog_store.hpp"

// Rebuilds a storage's rows in the catalogue from what the storage holds: every leg directory
// ("YYYY-MM-DD/HH/MM/<uuid>/") gives one row, from its "leg.json" or, without one, from what its
// "media.qm" tells (uuid, start, per side frames, samples and offsets, size; no call id, closed
// "unknown", leg "inbound", no lost packets). A leg whose summary or file cannot be read is
// skipped with one warning line. Rows of the storage's recorders whose directory is gone are
// marked removed, unless they are archived (the archive holds the leg, and an archiver may have
// removed the directory). Running it again over an unchanged storage changes nothing.
//
// The recorder catches its catalogue up with the same walk, reading only what its rows miss: a
// leg directory its recorder holds as recorded or archived is not read again, and a directory
// with only a media file is taken only when that file was last written before the recorder
// started (a leg the recorder still writes has no summary yet, and gets its row when it closes).
// Reads files and writes the catalogue; one thread.

namespace qm::catalog {

struct ReindexOptions {
    std::filesystem::path storage;
    // "host:port" for the rows derived from a media file: the recorder that wrote the storage.
    std::string recorder;
    // Rows per transaction.
    std::size_t batch = 500;
    // The time recorded for the rows marked removed.
    std::uint64_t now_us = 0;
    // Read only the legs the catalogue does not hold as recorded or archived for `recorder`.
    bool only_missing = false;
    // When set, a leg with only a media file is taken only when the file was last written before
    // this time (microseconds since the epoch).
    std::optional<std::uint64_t> media_written_before_us;
};

struct ReindexCounts {
    // Legs read (added + updated + unchanged).
    std::size_t legs = 0;
    std::size_t added = 0;
    std::size_t updated = 0;
    std::size_t removed = 0;
    std::size_t skipped = 0;

    bool operator==(const ReindexCounts&) const = default;
};

// The recorder's host and port from "host:port" (port 0..65535, host not empty); none otherwise.
std::optional<std::pair<std::string, std::uint16_t>> parse_recorder(const std::string& text);

// Told of each leg that is skipped: the file that could not be read and why.
using SkippedLeg =
    std::function<void(const std::filesystem::path& file, const std::string& reason)>;

// THROWS: CatalogError when the catalogue fails (rows of earlier batches stay).
// REQUIRES: `options.recorder` parses.
ReindexCounts reindex(CatalogStore& store, const ReindexOptions& options,
                      const SkippedLeg& skipped);

// "reindexed N legs: A added, U updated, R removed, S skipped"
std::string reindex_line(const ReindexCounts& counts);

}  // namespace qm::catalog
