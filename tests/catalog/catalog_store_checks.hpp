#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "catalog/catalog_store.hpp"

// The behaviour every catalogue back end shares, checked the same way on each: the SQLite suite
// and the PostgreSQL one (an end-to-end suite, as it starts a server) call these on a fresh store.

namespace qm::catalog::test {

// Leg `n` (1, 2, ...): its own uuid, call id "call-N", start at 2026-11-24T11:5N:00Z, recorded
// by rec-1:9000.
inline CatalogRow example_row(int n) {
    CatalogRow row;
    LegSummary& leg = row.summary;
    leg.uuid = "00000000-0000-0000-0000-00000000000" + std::to_string(n);
    leg.session_id = 0xF000000000000000ULL + static_cast<std::uint64_t>(n);
    leg.call_id = "call-" + std::to_string(n);
    leg.leg = n % 2 == 0 ? LegDirection::OUTBOUND : LegDirection::INBOUND;
    leg.flags = 0x8000;
    leg.start_us = 1795521000000000ULL + static_cast<std::uint64_t>(n) * 60'000'000;
    leg.last_packet_us = leg.start_us + 12'500'000;
    leg.closed_by = LegClose::TERMINATE;
    leg.sides[0] = {3, 480, 0, 320, 1};
    leg.sides[1] = {};
    leg.bytes = 1060;
    leg.host = "rec-1";
    leg.port = 9000;
    leg.path = "2026-11-24/11/5" + std::to_string(n) + "/" + leg.uuid;
    return row;
}

inline FindQuery everything() {
    FindQuery query;
    query.include_removed = true;
    return query;
}

inline void check_idempotent_upsert(CatalogStore& store) {
    const std::vector<CatalogRow> rows = {example_row(1), example_row(2), example_row(3)};
    EXPECT_EQ(store.upsert(rows), (UpsertCounts{3, 0, 0}));
    EXPECT_EQ(store.upsert(rows), (UpsertCounts{0, 0, 3}));
    EXPECT_EQ(store.find(everything()), rows);

    std::vector<CatalogRow> changed = rows;
    changed[1].summary.sides[1] = {2, 320, 7, 167, 4};
    changed[1].summary.call_id = "call-2b";
    EXPECT_EQ(store.upsert(changed), (UpsertCounts{0, 1, 2}));
    EXPECT_EQ(store.find(everything()), changed);

    // The same leg from another recorder is a row of its own.
    CatalogRow other = rows[0];
    other.summary.host = "rec-2";
    EXPECT_EQ(store.upsert({&other, 1}), (UpsertCounts{1, 0, 0}));
    EXPECT_EQ(store.find(everything()),
              (std::vector<CatalogRow>{rows[0], other, changed[1], rows[2]}));
}

inline void check_find_filters(CatalogStore& store) {
    std::vector<CatalogRow> rows = {example_row(3), example_row(1), example_row(2), example_row(4)};
    rows[3].summary.call_id = "call-1";
    store.upsert(rows);
    const CatalogRow& one = rows[1];
    const CatalogRow& two = rows[2];
    const CatalogRow& three = rows[0];
    const CatalogRow& four = rows[3];

    EXPECT_EQ(store.find(FindQuery{}), (std::vector<CatalogRow>{one, two, three, four}));

    FindQuery by_call;
    by_call.call_id = "call-1";
    EXPECT_EQ(store.find(by_call), (std::vector<CatalogRow>{one, four}));

    FindQuery by_uuid;
    by_uuid.uuid = three.summary.uuid;
    EXPECT_EQ(store.find(by_uuid), (std::vector<CatalogRow>{three}));

    // From is inclusive, to exclusive.
    FindQuery range;
    range.from_us = two.summary.start_us;
    range.to_us = four.summary.start_us;
    EXPECT_EQ(store.find(range), (std::vector<CatalogRow>{two, three}));

    FindQuery page;
    page.limit = 2;
    page.offset = 1;
    EXPECT_EQ(store.find(page), (std::vector<CatalogRow>{two, three}));

    FindQuery other_recorder;
    other_recorder.recorder = "rec-2:9000";
    EXPECT_EQ(store.find(other_recorder), std::vector<CatalogRow>{});

    FindQuery nothing;
    nothing.call_id = "call-1";
    nothing.from_us = two.summary.start_us;
    nothing.to_us = three.summary.start_us;
    EXPECT_EQ(store.find(nothing), std::vector<CatalogRow>{});
}

inline void check_mark_removed(CatalogStore& store) {
    const std::vector<CatalogRow> rows = {example_row(1), example_row(2), example_row(3)};
    store.upsert(rows);
    const std::vector<std::string> paths = {rows[0].summary.path, rows[2].summary.path,
                                            "2026-11-24/11/59/gone"};
    EXPECT_EQ(store.mark_removed("rec-2:9000", paths, 1795608000000000), 0U);
    EXPECT_EQ(store.mark_removed("rec-1:9000", paths, 1795608000000000), 2U);
    // Already removed: the first time stays.
    EXPECT_EQ(store.mark_removed("rec-1:9000", paths, 1795609999000000), 0U);

    EXPECT_EQ(store.find(FindQuery{}), (std::vector<CatalogRow>{rows[1]}));
    CatalogRow first = rows[0];
    first.state = RowState::REMOVED;
    first.removed_at_us = 1795608000000000;
    CatalogRow third = rows[2];
    third.state = RowState::REMOVED;
    third.removed_at_us = 1795608000000000;
    EXPECT_EQ(store.find(everything()), (std::vector<CatalogRow>{first, rows[1], third}));

    // A leg that is back (a restored directory) is recorded again.
    EXPECT_EQ(store.upsert({&rows[0], 1}), (UpsertCounts{0, 1, 0}));
    EXPECT_EQ(store.find(everything()), (std::vector<CatalogRow>{rows[0], rows[1], third}));
}

// Rows 1 to 3 start in minutes 11:51 to 11:53 of 2026-11-24; rows 4 and 5 in 12:54 and 12:55.
inline void check_mark_removed_under(CatalogStore& store) {
    std::vector<CatalogRow> rows = {example_row(1), example_row(2), example_row(3), example_row(4),
                                    example_row(5)};
    rows[3].summary.path = "2026-11-24/12/54/" + rows[3].summary.uuid;
    rows[4].summary.path = "2026-11-24/12/55/" + rows[4].summary.uuid;
    store.upsert(rows);
    const auto removed = [](CatalogRow row, std::uint64_t at_us) {
        row.state = RowState::REMOVED;
        row.removed_at_us = at_us;
        return row;
    };
    const auto mark = [&store](const std::string& recorder, const std::string& directory,
                               std::uint64_t at_us) {
        const RemovedDirectory removed{directory, at_us};
        return store.mark_removed_under(recorder, {&removed, 1});
    };
    EXPECT_EQ(mark("rec-2:9000", "2026-11-24/11", 1795608000000000), 0U);
    // "2026-11-24/1" names no directory of these rows: the prefix ends at a whole name.
    EXPECT_EQ(mark("rec-1:9000", "2026-11-24/1", 1795608000000000), 0U);
    EXPECT_EQ(mark("rec-1:9000", "2026-11-24/11/52", 1795608000000000), 1U);
    EXPECT_EQ(mark("rec-1:9000", "2026-11-24/11", 1795609000000000), 2U);
    EXPECT_EQ(mark("rec-1:9000", "2026-11-24/11", 1795609999000000), 0U);
    EXPECT_EQ(store.find(everything()),
              (std::vector<CatalogRow>{removed(rows[0], 1795609000000000),
                                       removed(rows[1], 1795608000000000),
                                       removed(rows[2], 1795609000000000), rows[3], rows[4]}));
    const std::vector<RemovedDirectory> both = {{"2026-11-24/12/54", 1795610000000000},
                                                {"2026-11-24/12/55", 1795610000000001}};
    EXPECT_EQ(store.mark_removed_under("rec-1:9000", both), 2U);
    EXPECT_EQ(store.find(FindQuery{}), (std::vector<CatalogRow>{}));
}

inline CatalogRow archived(CatalogRow row, const std::string& url, std::uint64_t at_us) {
    row.state = RowState::ARCHIVED;
    row.archive_url = url;
    row.archived_at_us = at_us;
    return row;
}

inline std::vector<LegKey> keys_of(const std::vector<CatalogRow>& rows) {
    std::vector<LegKey> keys;
    for (const CatalogRow& row : rows) {
        keys.push_back(key_of(row));
    }
    return keys;
}

// A catalogue as the first version of this code created it: its statements as they were, and
// rows 1 (recorded) and 2 (removed at `REMOVED_AT_US`) written as it wrote them.
inline constexpr std::uint64_t VERSION_1_REMOVED_AT_US = 1795608000000000;

inline void create_version_1(SqlConnection& connection) {
    const std::vector<std::string> schema = {
        "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)",
        "CREATE TABLE IF NOT EXISTS legs ("
        "uuid TEXT NOT NULL, recorder TEXT NOT NULL, session_id BIGINT NOT NULL, "
        "call_id TEXT NOT NULL, leg TEXT NOT NULL, flags INTEGER NOT NULL, "
        "start_us BIGINT NOT NULL, last_packet_us BIGINT NOT NULL, closed_by TEXT NOT NULL, "
        "side0_frames BIGINT NOT NULL, side0_samples BIGINT NOT NULL, side0_first_offset BIGINT, "
        "side0_last_offset BIGINT, side0_lost_packets BIGINT NOT NULL, "
        "side1_frames BIGINT NOT NULL, side1_samples BIGINT NOT NULL, side1_first_offset BIGINT, "
        "side1_last_offset BIGINT, side1_lost_packets BIGINT NOT NULL, "
        "bytes BIGINT NOT NULL, path TEXT NOT NULL, state TEXT NOT NULL, removed_at_us BIGINT, "
        "PRIMARY KEY (uuid, recorder))",
        "CREATE INDEX IF NOT EXISTS legs_call_id ON legs (call_id)",
        "CREATE INDEX IF NOT EXISTS legs_start_us ON legs (start_us)",
        "INSERT INTO schema_version (version) VALUES (1)"};
    for (const std::string& statement : schema) {
        connection.execute(statement, {});
    }
    const auto insert = [&connection](const CatalogRow& row) {
        const LegSummary& leg = row.summary;
        const auto number = [](std::uint64_t value) { return static_cast<std::int64_t>(value); };
        std::vector<SqlValue> values = {leg.uuid,
                                        recorder_name(leg),
                                        number(leg.session_id),
                                        leg.call_id,
                                        std::string(direction_name(leg.leg)),
                                        std::int64_t{leg.flags},
                                        number(leg.start_us),
                                        number(leg.last_packet_us),
                                        std::string(close_name(leg.closed_by))};
        for (const SideSummary& side : leg.sides) {
            values.insert(
                values.end(),
                {number(side.frames), number(side.samples),
                 side.first_offset ? SqlValue(std::int64_t{*side.first_offset}) : SqlValue(nullptr),
                 side.last_offset ? SqlValue(std::int64_t{*side.last_offset}) : SqlValue(nullptr),
                 number(side.lost_packets)});
        }
        values.insert(
            values.end(),
            {number(leg.bytes), leg.path, std::string(state_name(row.state)),
             row.removed_at_us ? SqlValue(number(*row.removed_at_us)) : SqlValue(nullptr)});
        connection.execute(
            "INSERT INTO legs (uuid, recorder, session_id, call_id, leg, flags, start_us, "
            "last_packet_us, closed_by, side0_frames, side0_samples, side0_first_offset, "
            "side0_last_offset, side0_lost_packets, side1_frames, side1_samples, "
            "side1_first_offset, side1_last_offset, side1_lost_packets, bytes, path, state, "
            "removed_at_us) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, $14, "
            "$15, $16, $17, $18, $19, $20, $21, $22, $23)",
            values);
    };
    insert(example_row(1));
    CatalogRow removed = example_row(2);
    removed.state = RowState::REMOVED;
    removed.removed_at_us = VERSION_1_REMOVED_AT_US;
    insert(removed);
}

// The rows create_version_1 wrote, as a store reads them.
inline std::vector<CatalogRow> version_1_rows() {
    CatalogRow removed = example_row(2);
    removed.state = RowState::REMOVED;
    removed.removed_at_us = VERSION_1_REMOVED_AT_US;
    return {example_row(1), removed};
}

// The rows of create_version_1 after check_upgraded_version_1 archived the first.
inline std::vector<CatalogRow> upgraded_version_1_rows() {
    return {archived(example_row(1), "s3://b/1/", 2), version_1_rows()[1]};
}

// `store` was opened with create rights on a catalogue of create_version_1: upgraded, rows kept,
// and the new columns work.
inline void check_upgraded_version_1(CatalogStore& store) {
    EXPECT_EQ(store.schema_version(), 2);
    EXPECT_EQ(store.find(everything()), version_1_rows());
    EXPECT_EQ(store.claim("a", 1, 10, 5), (std::vector<CatalogRow>{example_row(1)}));
    EXPECT_TRUE(store.mark_archived("a", key_of(example_row(1)), "s3://b/1/", 2));
    EXPECT_EQ(store.find(everything()), upgraded_version_1_rows());
}

// `store` was opened without create rights on a catalogue of create_version_1: it reads, and
// refuses to write with a line that says why.
inline void check_reads_version_1(CatalogStore& store) {
    EXPECT_EQ(store.schema_version(), 1);
    EXPECT_EQ(store.find(everything()), version_1_rows());
    EXPECT_EQ(store.leg(example_row(1).summary.uuid), example_row(1));
    const CatalogRow row = example_row(3);
    try {
        store.upsert({&row, 1});
        ADD_FAILURE() << "a version-1 catalogue opened to read was written";
    } catch (const CatalogError& refused) {
        EXPECT_EQ(std::string(refused.what()),
                  "catalogue: schema version 1 is older than this program's 2 and was opened "
                  "only to read; a program that may create the catalogue (the recorder, quillmar "
                  "catalog reindex) upgrades it");
    }
    EXPECT_THROW(store.claim("a", 1, 10, 5), CatalogError);
}

// The recorder's writes and the storage cleanup leave an archived row archived, with its URL.
inline void check_archived_rows_stay_archived(CatalogStore& store) {
    const std::vector<CatalogRow> rows = {example_row(1), example_row(2), example_row(3)};
    store.upsert(rows);
    EXPECT_EQ(store.claim("a", 100, 10, 5), rows);
    EXPECT_TRUE(store.mark_archived("a", key_of(rows[0]), "s3://b/1/", 105));
    const CatalogRow first = archived(rows[0], "s3://b/1/", 105);

    // The catch-up or a reindex writes the leg again as the storage shows it.
    EXPECT_EQ(store.upsert({&rows[0], 1}), (UpsertCounts{0, 0, 1}));
    CatalogRow changed = rows[0];
    changed.summary.call_id = "call-1b";
    EXPECT_EQ(store.upsert({&changed, 1}), (UpsertCounts{0, 1, 0}));
    const CatalogRow first_changed = archived(changed, "s3://b/1/", 105);
    EXPECT_EQ(store.find(FindQuery{}), (std::vector<CatalogRow>{first_changed, rows[1], rows[2]}));

    // The cleanup removes the directories; the archived leg lives on in the archive.
    const std::vector<std::string> paths = {rows[0].summary.path, rows[1].summary.path};
    EXPECT_EQ(store.mark_removed("rec-1:9000", paths, 200), 1U);
    const RemovedDirectory hour{"2026-11-24/11", 300};
    EXPECT_EQ(store.mark_removed_under("rec-1:9000", {&hour, 1}), 1U);
    CatalogRow second = rows[1];
    second.state = RowState::REMOVED;
    second.removed_at_us = 200;
    CatalogRow third = rows[2];
    third.state = RowState::REMOVED;
    third.removed_at_us = 300;
    EXPECT_EQ(store.find(everything()), (std::vector<CatalogRow>{first_changed, second, third}));
    EXPECT_EQ(store.find(FindQuery{}), (std::vector<CatalogRow>{first_changed}));
    EXPECT_EQ(store.leg(rows[0].summary.uuid), first_changed);

    // A leg removed while it was uploaded is archived all the same, and keeps its removal time.
    EXPECT_TRUE(store.mark_archived("a", key_of(rows[1]), "s3://b/2/", 400));
    EXPECT_EQ(store.leg(rows[1].summary.uuid), archived(second, "s3://b/2/", 400));
}

// Claims, their leases, renewals and releases, and the backlog.
inline void check_claims(CatalogStore& store) {
    std::vector<CatalogRow> rows = {example_row(1), example_row(2), example_row(3), example_row(4),
                                    example_row(5)};
    store.upsert(rows);
    const auto rows_of = [&rows](std::initializer_list<std::size_t> indexes) {
        std::vector<CatalogRow> out;
        for (const std::size_t i : indexes) {
            out.push_back(rows[i]);
        }
        return out;
    };
    const std::vector<LegKey> keys = keys_of(rows);
    constexpr std::uint64_t T = 1000;
    constexpr std::uint64_t LEASE = 60;
    EXPECT_EQ(store.backlog(), (ArchiveBacklog{5, 5 * 1060}));

    // Oldest first, each leg to one archiver.
    EXPECT_EQ(store.claim("a", T, LEASE, 2), rows_of({0, 1}));
    EXPECT_EQ(store.claim("b", T, LEASE, 10), rows_of({2, 3, 4}));
    EXPECT_EQ(store.claim("c", T + LEASE - 1, LEASE, 10), std::vector<CatalogRow>{});

    // A renewed claim outlives its first lease; the others run out at T + LEASE.
    EXPECT_EQ(store.renew("a", keys, T + 2 * LEASE), 2U);
    EXPECT_EQ(store.renew("c", keys, T + 3 * LEASE), 0U);
    EXPECT_EQ(store.claim("c", T + LEASE, LEASE, 10), rows_of({2, 3, 4}));

    // "b" lost its legs to "c": its upload is not recorded over c's claim.
    EXPECT_FALSE(store.mark_archived("b", keys[2], "s3://b/3/", T + LEASE + 1));
    EXPECT_TRUE(store.mark_archived("c", keys[2], "s3://c/3/", T + LEASE + 2));
    EXPECT_FALSE(store.mark_archived("c", keys[2], "s3://c/3bis/", T + LEASE + 3));
    // "a" holds its legs even past the lease while no one took them.
    EXPECT_TRUE(store.mark_archived("a", keys[0], "s3://a/1/", T + 3 * LEASE));
    EXPECT_EQ(store.backlog(), (ArchiveBacklog{3, 3 * 1060}));

    // A released leg is free at once; an archived one is never claimed again.
    EXPECT_FALSE(store.release("a", keys[3]));
    EXPECT_TRUE(store.release("c", keys[3]));
    EXPECT_EQ(store.claim("d", T + LEASE, LEASE, 10), rows_of({3}));
    EXPECT_EQ(store.release_all("c"), 1U);
    EXPECT_EQ(store.claim("d", T + LEASE, LEASE, 10), rows_of({4}));
    EXPECT_EQ(store.claim("e", T + 10 * LEASE, LEASE, 10), rows_of({1, 3, 4}));

    // Only the recorders asked for.
    CatalogRow other = example_row(6);
    other.summary.host = "rec-2";
    store.upsert({&other, 1});
    const std::vector<std::string> second_recorder = {"rec-2:9000"};
    const std::vector<std::string> first_recorder = {"rec-1:9000", "rec-3:9000"};
    EXPECT_EQ(store.claim("f", T + 20 * LEASE, LEASE, 10, first_recorder), rows_of({1, 3, 4}));
    EXPECT_EQ(store.claim("g", T + 20 * LEASE, LEASE, 10, second_recorder),
              std::vector<CatalogRow>{other});

    EXPECT_EQ(store.find(everything()),
              (std::vector<CatalogRow>{archived(rows[0], "s3://a/1/", T + 3 * LEASE), rows[1],
                                       archived(rows[2], "s3://c/3/", T + LEASE + 2), rows[3],
                                       rows[4], other}));
}

// Two archivers, each with its own connection from `open`, claim the same catalogue at once
// until nothing is left: every leg goes to exactly one of them.
inline void check_concurrent_claims(const std::function<std::unique_ptr<CatalogStore>()>& open) {
    constexpr int LEGS = 120;
    std::vector<CatalogRow> rows;
    std::set<std::string> all;
    for (int n = 1; n <= LEGS; ++n) {
        rows.push_back(example_row(n));
        all.insert(rows.back().summary.uuid);
    }
    open()->upsert(rows);
    std::vector<std::string> claimed[2];
    std::string failures[2];
    const auto archiver = [&open, &claimed, &failures](int which) {
        try {
            const auto store = open();
            const std::string name = "archiver-" + std::to_string(which);
            for (std::vector<CatalogRow> batch = store->claim(name, 1000, 60, 3); !batch.empty();
                 batch = store->claim(name, 1000, 60, 3)) {
                for (const CatalogRow& row : batch) {
                    claimed[which].push_back(row.summary.uuid);
                }
            }
        } catch (const CatalogError& failure) {
            failures[which] = failure.what();
        }
    };
    std::thread first(archiver, 0);
    std::thread second(archiver, 1);
    first.join();
    second.join();
    EXPECT_EQ(failures[0], "");
    EXPECT_EQ(failures[1], "");
    std::multiset<std::string> both(claimed[0].begin(), claimed[0].end());
    both.insert(claimed[1].begin(), claimed[1].end());
    EXPECT_EQ(both.size(), all.size());
    EXPECT_EQ(std::set<std::string>(both.begin(), both.end()), all);
}

}  // namespace qm::catalog::test
