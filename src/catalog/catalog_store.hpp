#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
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
// Version 2 added what archiving needs: the state `archived` with the leg's `archive_url` and
// `archived_at_us`, and an archiver's claim on a leg (`claimed_by`, `claim_until_us`). Archivers
// sharing a catalogue claim recorded legs for a lease, upload them, and mark them archived while
// they still hold the claim; a claim whose lease ran out (its archiver died) may be taken by
// another. An archiver's name must be unique among those sharing the catalogue.
//
// One thread at a time (the connection is not shared); several stores, in one process or many,
// may use one database.

namespace qm::catalog {

// The version of the table layout this code creates and reads.
inline constexpr std::int64_t CATALOG_SCHEMA = 2;

class CatalogStore {
public:
    // Takes the connection and, when `create` is set, creates the schema if it is missing or
    // upgrades an older one in place (in one transaction, which other openers wait for). Without
    // `create` an older schema is read as it is: `find` and `leg` work, every write throws.
    // THROWS: CatalogError when the schema cannot be created or upgraded, is missing (without
    // `create`) or is newer than this code's.
    CatalogStore(std::unique_ptr<SqlConnection> connection, bool create);

    // The version recorded in `schema_version`, when it was last read (at the open, and while it
    // is older than this code's, at each read).
    std::int64_t schema_version() const { return m_schema_version; }

    // Inserts or rewrites the rows, all in one transaction (none when it fails). A row equal to
    // the stored one is left as it is. A stored row that is archived keeps its state, URL and
    // times whatever the given row says; its other fields are written. THROWS: CatalogError.
    UpsertCounts upsert(std::span<const CatalogRow> rows);

    // Marks the rows of `recorder` at these paths, which are still recorded, as removed at
    // `removed_at_us`, in one transaction; returns how many changed. Archived rows stay archived.
    // THROWS: CatalogError.
    std::size_t mark_removed(const std::string& recorder, std::span<const std::string> paths,
                             std::uint64_t removed_at_us);

    // Marks the rows of `recorder` under each of the directories, which are still recorded, as
    // removed at the directory's time, in one transaction; returns how many changed. Archived
    // rows stay archived. THROWS: CatalogError.
    std::size_t mark_removed_under(const std::string& recorder,
                                   std::span<const RemovedDirectory> directories);

    // The rows the query selects, by start time (then uuid, then recorder).
    // THROWS: CatalogError.
    std::vector<CatalogRow> find(const FindQuery& query);

    // The row of the leg `uuid` to read it from: when several recorders hold it, one still
    // recorded, else one archived, else one removed; none when the catalogue does not know it.
    // THROWS: CatalogError.
    std::optional<CatalogRow> leg(const std::string& uuid);

    // Claims for `archiver` until `now_us + lease_us` up to `limit` recorded legs (of the
    // `recorders` given, or of every recorder when none is) that no archiver holds or whose
    // claim ran out at or before `now_us`, oldest first; returns them in that order. Two
    // archivers claiming at once never get the same leg. THROWS: CatalogError.
    std::vector<CatalogRow> claim(const std::string& archiver, std::uint64_t now_us,
                                  std::uint64_t lease_us, std::size_t limit,
                                  std::span<const std::string> recorders = {});

    // Extends the claims `archiver` still holds on these legs to `until_us`, in one transaction;
    // returns how many it holds. THROWS: CatalogError.
    std::size_t renew(const std::string& archiver, std::span<const LegKey> keys,
                      std::uint64_t until_us);

    // Records the leg as archived at `url` at `archived_at_us` and ends the claim, but only while
    // `archiver` still holds it (even after its lease ran out, as long as no other archiver took
    // it): false otherwise, and the row is left as it is. THROWS: CatalogError.
    bool mark_archived(const std::string& archiver, const LegKey& key, const std::string& url,
                       std::uint64_t archived_at_us);

    // Gives up `archiver`'s claim on the leg (an upload that failed), so that any archiver may
    // take it at once; false when it held none. THROWS: CatalogError.
    bool release(const std::string& archiver, const LegKey& key);

    // Gives up every claim `archiver` holds (what a killed run of it left); returns how many.
    // THROWS: CatalogError.
    std::size_t release_all(const std::string& archiver);

    // The recorded legs that are not archived yet, and their bytes. THROWS: CatalogError.
    ArchiveBacklog backlog();

private:
    void ensure_schema(bool create);
    // Brings a schema of version `found` up to CATALOG_SCHEMA. REQUIRES: in a transaction.
    void upgrade(std::int64_t found);
    // The version in `schema_version`; 0 when it holds none.
    std::int64_t read_version();
    // Whether the schema is this code's, reading its version again while it is older.
    bool current();
    // THROWS: CatalogError when the schema is older than this code's (opened without `create`).
    void require_current();
    // The columns `find` reads, in the order of the table's columns in this code.
    const std::string& select_list();
    // Whether a row with this key exists.
    bool exists(const CatalogRow& row);

    std::unique_ptr<SqlConnection> m_connection;
    std::int64_t m_schema_version = 0;
};

}  // namespace qm::catalog
