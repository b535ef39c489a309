#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>

#include "catalog/catalog_store.hpp"

// Rebuilds a storage's rows in the catalogue from what the storage holds: every leg directory
// ("YYYY-MM-DD/HH/MM/<uuid>/") gives one row, from its "leg.json" or, without one, from what its
// "media.qm" tells (uuid, start, per side frames, samples and offsets, size; no call id, closed
// "unknown", leg "inbound", no lost packets). A leg whose summary or file cannot be read is
// skipped with one warning line. Rows of the storage's recorders whose directory is gone are
// marked removed. Running it again over an unchanged storage changes nothing.
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

// Writes one line per skipped leg to `warnings`:
//   "WARNING: <file>: <reason>; leg skipped"
// THROWS: CatalogError when the catalogue fails (rows of earlier batches stay).
// REQUIRES: `options.recorder` parses.
ReindexCounts reindex(CatalogStore& store, const ReindexOptions& options, std::ostream& warnings);

// "reindexed N legs: A added, U updated, R removed, S skipped"
std::string reindex_line(const ReindexCounts& counts);

}  // namespace qm::catalog
