#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "catalog/catalog_row.hpp"
#include "catalog/sql_connection.hpp"

// The catalogue of recorded legs: one table `legs`, keyed by (uuid, recorder), with indexes on
// call_id and start time (the key's index serves lookups by uuid), and a table `schema_version`
// holding the version of that layout. The same SQL runs on SQLite and PostgreSQL; times are
// bigint microseconds since the epoch on both, unsigned 64-bit fields (session id) are stored as
// the signed 64-bit integer of the same bits.
//
// One thread at a time (the connection is not shared); several stores, in one process or many,
// may use one database.

namespace qm::catalog {

// The version of the table layout this code creates and reads.
inline constexpr std::int64_t CATALOG_SCHEMA = 1;

class CatalogStore {
public:
    // Takes the connection and, when `create` is set, creates the schema if it is missing.
    // THROWS: CatalogError when the schema cannot be created, is missing (without `create`) or
    // is newer than this code's.
    CatalogStore(std::unique_ptr<SqlConnection> connection, bool create);

    // The version recorded in `schema_version`.
    std::int64_t schema_version() const { return m_schema_version; }

    // Inserts or rewrites the rows, all in one transaction (none when it fails). A row equal to
    // the stored one is left as it is. THROWS: CatalogError.
    UpsertCounts upsert(std::span<const CatalogRow> rows);

    // Marks the rows of `recorder` at these paths, which are still recorded, as removed at
    // `removed_at_us`, in one transaction; returns how many changed. THROWS: CatalogError.
    std::size_t mark_removed(const std::string& recorder, std::span<const std::string> paths,
                             std::uint64_t removed_at_us);

    // Marks the rows of `recorder` under each of the directories, which are still recorded, as
    // removed at the directory's time, in one transaction; returns how many changed.
    // THROWS: CatalogError.
    std::size_t mark_removed_under(const std::string& recorder,
                                   std::span<const RemovedDirectory> directories);

    // The rows the query selects, by start time (then uuid, then recorder).
    // THROWS: CatalogError.
    std::vector<CatalogRow> find(const FindQuery& query);

private:
    void ensure_schema(bool create);
    // Whether a row with this key exists.
    bool exists(const CatalogRow& row);

    std::unique_ptr<SqlConnection> m_connection;
    std::int64_t m_schema_version = 0;
};

}  // namespace qm::catalog
