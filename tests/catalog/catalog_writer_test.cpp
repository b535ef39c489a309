#include "catalog/catalog_writer.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "catalog/open_catalog.hpp"
#include "catalog_store_checks.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "temp_directory.hpp"

namespace qm::catalog {
namespace {

using Texts = std::vector<std::string>;

constexpr std::chrono::milliseconds DEADLINE{10000};
// The example rows' recorder; the writer keeps the rows of no other.
const std::string RECORDER = "rec-1:9000";

class CatalogWriterTest : public ::testing::Test {
protected:
    // A writer on `location` that opens the catalogue itself, as after an outage.
    std::unique_ptr<CatalogWriter> writer(const std::string& location,
                                          std::uint64_t started_us = 0) {
        auto built =
            std::make_unique<CatalogWriter>(location, m_storage.path(), nullptr, m_statistic);
        built->describe_recorder(RECORDER, started_us);
        return built;
    }

    // Every row of the test's catalogue, removed ones too.
    std::vector<CatalogRow> rows(const std::string& location = "sqlite:catalog.sqlite") {
        std::string error;
        const auto store = open_catalog(location, m_storage.path(), error);
        return store ? store->find(test::everything()) : std::vector<CatalogRow>{};
    }

    bool rows_become(const std::vector<CatalogRow>& expected,
                     const std::string& location = "sqlite:catalog.sqlite") {
        return qm::test::poll_until([&] { return rows(location) == expected; }, DEADLINE);
    }

    // Puts row `n`'s leg directory and summary in the storage.
    CatalogRow leg_on_disk(int n) {
        const CatalogRow row = test::example_row(n);
        const std::filesystem::path directory = m_storage.path() / row.summary.path;
        std::filesystem::create_directories(directory);
        m_storage.write_file(row.summary.path + "/leg.json", render(row.summary));
        return row;
    }

    static CatalogRow removed(CatalogRow row, std::uint64_t at_us) {
        row.state = RowState::REMOVED;
        row.removed_at_us = at_us;
        return row;
    }

    qm::test::LogCapture m_capture;
    qm::test::TempDirectory m_storage;
    CatalogWriterStatistic m_statistic;
};

TEST_F(CatalogWriterTest, WritesQueuedLegsAndRemovalsInOrder) {
    const auto catalog = writer("sqlite:catalog.sqlite");
    const CatalogRow first = leg_on_disk(1);
    const CatalogRow second = leg_on_disk(2);
    // Queued before the thread runs, as the first cleanup pass and the media writer may.
    catalog->leg_closed(first.summary);
    catalog->leg_closed(second.summary);
    std::filesystem::remove_all(m_storage.path() / "2026-11-24/11/51");
    catalog->directory_removed("2026-11-24/11/51", 1795608000000000);
    EXPECT_EQ(m_statistic.rows_waiting.load(), 3U);
    ASSERT_EQ(catalog->start(), 0);

    EXPECT_TRUE(rows_become({removed(first, 1795608000000000), second}));
    EXPECT_EQ(catalog->stop(), 0);
    EXPECT_EQ(m_statistic.rows_written.load(), 2U);
    EXPECT_EQ(m_statistic.rows_waiting.load(), 0U);
    EXPECT_EQ(m_statistic.write_failures.load(), 0U);
    EXPECT_TRUE(m_capture.texts(log::Level::WARNING).empty());
}

TEST_F(CatalogWriterTest, CatchesUpFromTheStorageAtStart) {
    const CatalogRow on_disk = leg_on_disk(1);
    // Recorded before, its directory gone since.
    const CatalogRow gone = test::example_row(2);
    {
        std::string error;
        open_catalog("sqlite:catalog.sqlite", m_storage.path(), error)->upsert({&gone, 1});
    }
    std::filesystem::create_directories(m_storage.path() / "2026-11-24/11/53/bad");
    m_storage.write_file("2026-11-24/11/53/bad/leg.json", "{\"schema\": 1, \"uuid\": ");
    const auto catalog = writer("sqlite:catalog.sqlite");
    ASSERT_EQ(catalog->start(), 0);

    ASSERT_TRUE(qm::test::poll_until([&] { return rows().size() == 2 && rows()[1].removed_at_us; },
                                     DEADLINE));
    EXPECT_EQ(catalog->stop(), 0);
    const std::vector<CatalogRow> found = rows();
    EXPECT_EQ(found[0], on_disk);
    EXPECT_EQ(found[1], removed(gone, *found[1].removed_at_us));
    EXPECT_EQ(m_statistic.rows_written.load(), 1U);
    const std::string bad = (m_storage.path() / "2026-11-24/11/53/bad/leg.json").string();
    ASSERT_EQ(m_capture.texts(log::Level::WARNING).size(), 1U);
    EXPECT_EQ(m_capture.texts(log::Level::WARNING)[0].rfind("CATALOG_WRITER: " + bad + ": ", 0),
              0U);
}

TEST_F(CatalogWriterTest, LeavesArchivedLegsArchived) {
    // Legs 1 and 2 archived, 1 with its directory deleted by the archiver, 2 still on disk; leg
    // 3 recorded, its directory gone since.
    const CatalogRow first = test::example_row(1);
    const CatalogRow second = leg_on_disk(2);
    const CatalogRow third = test::example_row(3);
    {
        std::string error;
        const auto store = open_catalog("sqlite:catalog.sqlite", m_storage.path(), error);
        ASSERT_NE(store, nullptr) << error;
        store->upsert(std::vector<CatalogRow>{first, second, third});
        ASSERT_EQ(store->claim("archiver", 1, 60, 2).size(), 2U);
        ASSERT_TRUE(store->mark_archived("archiver", key_of(first), "s3://b/1/", 10));
        ASSERT_TRUE(store->mark_archived("archiver", key_of(second), "s3://b/2/", 11));
    }
    const auto catalog = writer("sqlite:catalog.sqlite");
    // The media writer closes leg 2 again (as a restart's catch-up would read it), and the
    // cleanup then removes its directory.
    catalog->leg_closed(second.summary);
    std::filesystem::remove_all(m_storage.path() / "2026-11-24/11/52");
    catalog->directory_removed("2026-11-24/11/52", 1795608000000000);
    ASSERT_EQ(catalog->start(), 0);

    ASSERT_TRUE(qm::test::poll_until(
        [&] { return rows().size() == 3 && rows()[2].state == RowState::REMOVED; }, DEADLINE));
    EXPECT_EQ(catalog->stop(), 0);
    const std::vector<CatalogRow> found = rows();
    EXPECT_EQ(found[0], test::archived(first, "s3://b/1/", 10));
    EXPECT_EQ(found[1], test::archived(second, "s3://b/2/", 11));
    EXPECT_EQ(found[2], removed(third, *found[2].removed_at_us));
    EXPECT_TRUE(m_capture.texts(log::Level::WARNING).empty());
}

TEST_F(CatalogWriterTest, RidesOutAnOutageWithOneWarningAndCatchesUp) {
    // The catalogue's directory does not exist yet: every open fails until it does.
    const std::string location = "sqlite:later/catalog.sqlite";
    const auto catalog = writer(location);
    const CatalogRow queued = leg_on_disk(1);
    catalog->leg_closed(queued.summary);
    ASSERT_EQ(catalog->start(), 0);
    ASSERT_TRUE(
        qm::test::poll_until([&] { return m_statistic.write_failures.load() >= 2; }, DEADLINE));
    // Written to disk while the catalogue was away; the queue lost nothing either.
    const CatalogRow on_disk = leg_on_disk(2);
    std::filesystem::create_directories(m_storage.path() / "later");

    EXPECT_TRUE(rows_become({queued, on_disk}, location));
    EXPECT_TRUE(m_capture.wait_for("CATALOG_WRITER: the catalogue answers again"));
    EXPECT_EQ(catalog->stop(), 0);
    const Texts warnings = m_capture.texts(log::Level::WARNING);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0].rfind("CATALOG_WRITER: the catalogue cannot be written, recording goes "
                                "on and the catalogue catches up from the storage when it "
                                "answers: catalogue ",
                                0),
              0U);
    // The queue goes first, so the walk reads only the leg it missed.
    EXPECT_EQ(m_capture.count("CATALOG_WRITER: the catalogue answers again, caught up with the "
                              "storage: reindexed 1 legs: 1 added, 0 updated, 0 removed, 0 "
                              "skipped"),
              1U);
}

TEST_F(CatalogWriterTest, TakesAMediaOnlyLegOnlyWhenWrittenBeforeTheStart) {
    const CatalogRow row = test::example_row(1);
    std::filesystem::create_directories(m_storage.path() / row.summary.path);
    // Not a readable recording: were it taken, it would be skipped with a WARNING.
    m_storage.write_file(row.summary.path + "/media.qm", "QM");
    const auto catalog = writer("sqlite:catalog.sqlite", 1);
    ASSERT_EQ(catalog->start(), 0);
    ASSERT_TRUE(m_capture.wait_for("CATALOG_WRITER: thread ["));
    catalog->leg_closed(leg_on_disk(2).summary);
    EXPECT_TRUE(rows_become({test::example_row(2)}));
    EXPECT_EQ(catalog->stop(), 0);
    EXPECT_TRUE(m_capture.texts(log::Level::WARNING).empty());
}

TEST_F(CatalogWriterTest, AFullQueueIsCountedAndItsLegsComeFromTheStorage) {
    const auto catalog = writer("sqlite:catalog.sqlite");
    for (std::size_t i = 0; i < CatalogWriter::QUEUE_CAPACITY; ++i) {
        catalog->directory_removed("2026-11-24/00/00", 1);
    }
    const CatalogRow overflowed = leg_on_disk(1);
    catalog->leg_closed(overflowed.summary);
    EXPECT_EQ(m_statistic.rows_overflowed.load(), 1U);
    EXPECT_EQ(m_statistic.rows_waiting.load(), CatalogWriter::QUEUE_CAPACITY);
    ASSERT_EQ(catalog->start(), 0);

    EXPECT_TRUE(rows_become({overflowed}));
    EXPECT_EQ(catalog->stop(), 0);
    EXPECT_EQ(m_statistic.rows_waiting.load(), 0U);
}

}  // namespace
}  // namespace qm::catalog
