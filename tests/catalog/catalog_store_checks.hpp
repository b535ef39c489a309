#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
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

}  // namespace qm::catalog::test
