// The catalogue on a real PostgreSQL server: the checks every back end shares, plus what only a
// server has (reconnecting to the same database, a refused connection).

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../catalog/catalog_store_checks.hpp"
#include "catalog/open_catalog.hpp"
#include "catalog/postgres_connection.hpp"
#include "poll.hpp"
#include "postgres_server.hpp"
#include "temp_directory.hpp"

namespace qm::catalog {
namespace {

// One server for the suite, as starting one takes seconds; each test has a database of its own.
class PostgresCatalogTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_directory = new qm::test::TempDirectory();
        s_server = new qm::test::PostgresServer(s_directory->path());
        ::setenv("PGPASSFILE", s_server->password_file().c_str(), 1);
    }
    static void TearDownTestSuite() {
        delete s_server;
        delete s_directory;
    }

    void SetUp() override {
        const std::string database = "recordings_" + std::to_string(++s_databases);
        s_server->create_database(database);
        m_uri = s_server->uri(database);
    }

    std::unique_ptr<CatalogStore> open(CatalogOpen mode = CatalogOpen::CREATE) {
        m_error.clear();
        auto store = open_catalog(m_uri, "", m_error, mode);
        EXPECT_NE(store, nullptr) << m_error;
        return store;
    }

    static inline qm::test::TempDirectory* s_directory = nullptr;
    static inline qm::test::PostgresServer* s_server = nullptr;
    static inline int s_databases = 0;
    std::string m_uri;
    std::string m_error;
};

TEST_F(PostgresCatalogTest, CreatesTheSchemaOnceWithItsVersion) {
    ASSERT_NE(open(), nullptr);
    const auto again = open(CatalogOpen::EXISTING);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->schema_version(), 2);
    PostgresConnection connection(m_uri);
    EXPECT_EQ(connection.query("SELECT version FROM schema_version", {}),
              (std::vector<SqlRow>{{SqlCell("2")}}));
    EXPECT_EQ(connection.query("SELECT indexname FROM pg_indexes WHERE tablename = 'legs' "
                               "ORDER BY indexname",
                               {}),
              (std::vector<SqlRow>{
                  {SqlCell("legs_call_id")}, {SqlCell("legs_pkey")}, {SqlCell("legs_start_us")}}));
}

TEST_F(PostgresCatalogTest, UpsertIsIdempotent) {
    auto store = open();
    ASSERT_NE(store, nullptr);
    test::check_idempotent_upsert(*store);
}

TEST_F(PostgresCatalogTest, FindsByEveryFilter) {
    auto store = open();
    ASSERT_NE(store, nullptr);
    test::check_find_filters(*store);
}

TEST_F(PostgresCatalogTest, MarksRemovedLegs) {
    auto store = open();
    ASSERT_NE(store, nullptr);
    test::check_mark_removed(*store);
}

TEST_F(PostgresCatalogTest, MarksTheLegsOfARemovedDirectory) {
    auto store = open();
    ASSERT_NE(store, nullptr);
    test::check_mark_removed_under(*store);
}

TEST_F(PostgresCatalogTest, ReadsAVersion1CatalogueAndUpgradesItWhenAllowedTo) {
    {
        PostgresConnection connection(m_uri);
        test::create_version_1(connection);
    }
    const auto reader = open(CatalogOpen::EXISTING);
    ASSERT_NE(reader, nullptr);
    test::check_reads_version_1(*reader);
    const auto store = open();
    ASSERT_NE(store, nullptr);
    test::check_upgraded_version_1(*store);
    PostgresConnection connection(m_uri);
    EXPECT_EQ(connection.query("SELECT version FROM schema_version", {}),
              (std::vector<SqlRow>{{SqlCell("2")}}));
    // A reader opened before the upgrade reads the new columns from then on.
    EXPECT_EQ(reader->find(test::everything()), test::upgraded_version_1_rows());
    EXPECT_EQ(reader->schema_version(), 2);
}

TEST_F(PostgresCatalogTest, AnOpenerWaitsForAnotherOnesUpgrade) {
    PostgresConnection other(m_uri);
    test::create_version_1(other);
    // Another program opening it, caught before its upgrade: it has locked the version and
    // touched the legs' table (creating an index that exists locks it).
    other.begin();
    for (const char* statement :
         {"CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)",
          "LOCK TABLE schema_version IN EXCLUSIVE MODE",
          "CREATE INDEX IF NOT EXISTS legs_call_id ON legs (call_id)"}) {
        other.execute(statement, {});
    }
    std::unique_ptr<CatalogStore> store;
    std::string error;
    std::thread opener([&] { store = open_catalog(m_uri, "", error); });
    // Asked outside the transaction, which sees the server's activity as it was when it began.
    PostgresConnection observer(m_uri);
    const auto waiting = [&observer] {
        return observer.query(
                   "SELECT COUNT(*) FROM pg_stat_activity "
                   "WHERE datname = current_database() AND wait_event_type = 'Lock'",
                   {}) == std::vector<SqlRow>{{SqlCell("1")}};
    };
    EXPECT_TRUE(qm::test::poll_until(waiting, std::chrono::milliseconds(10000)));
    for (const char* statement : {"ALTER TABLE legs ADD COLUMN archive_url TEXT",
                                  "ALTER TABLE legs ADD COLUMN archived_at_us BIGINT",
                                  "ALTER TABLE legs ADD COLUMN claimed_by TEXT",
                                  "ALTER TABLE legs ADD COLUMN claim_until_us BIGINT",
                                  "UPDATE schema_version SET version = 2", "COMMIT"}) {
        other.execute(statement, {});
    }
    opener.join();
    ASSERT_NE(store, nullptr) << error;
    EXPECT_EQ(store->schema_version(), 2);
    EXPECT_EQ(store->find(test::everything()), test::version_1_rows());
}

TEST_F(PostgresCatalogTest, KeepsArchivedLegsArchivedAndClaimsForArchivers) {
    auto store = open();
    ASSERT_NE(store, nullptr);
    test::check_archived_rows_stay_archived(*store);
    PostgresConnection(m_uri).execute("DELETE FROM legs", {});
    test::check_claims(*store);
}

TEST_F(PostgresCatalogTest, TwoArchiversClaimDisjointLegs) {
    // Each thread with an error of its own: open() shares the fixture's.
    test::check_concurrent_claims([this] {
        std::string error;
        auto store = open_catalog(m_uri, "", error);
        EXPECT_NE(store, nullptr) << error;
        return store;
    });
}

TEST_F(PostgresCatalogTest, AClaimPassesOverTheLegsAnotherArchiverHasLocked) {
    const std::vector<CatalogRow> rows = {test::example_row(1), test::example_row(2)};
    open()->upsert(rows);
    // Another archiver's claim, caught between its select and its commit.
    PostgresConnection other(m_uri);
    other.begin();
    EXPECT_EQ(
        other.query("SELECT uuid FROM legs WHERE uuid = $1 FOR UPDATE", {rows[0].summary.uuid}),
        (std::vector<SqlRow>{{SqlCell(rows[0].summary.uuid)}}));
    // Were the claim to wait for that lock, it would fail after a second rather than hang.
    ::setenv("PGOPTIONS", "-c lock_timeout=1000", 1);
    const auto store = open();
    ::unsetenv("PGOPTIONS");
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store->claim("a", 1000, 60, 1), std::vector<CatalogRow>{rows[1]});
    other.execute("ROLLBACK", {});
    EXPECT_EQ(store->claim("a", 1000, 60, 1), std::vector<CatalogRow>{rows[0]});
}

TEST_F(PostgresCatalogTest, KeepsRowsAcrossARestartAndReportsAnOutage) {
    const CatalogRow row = test::example_row(2);
    open()->upsert({&row, 1});
    s_server->stop();
    std::string error;
    EXPECT_EQ(open_catalog(m_uri, "", error), nullptr);
    EXPECT_TRUE(error.starts_with("catalogue: cannot connect to PostgreSQL: ")) << error;
    // libpq's reason has a hint on a line of its own; the log line must not break.
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    s_server->start();
    const auto store = open(CatalogOpen::EXISTING);
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store->find(FindQuery{}), std::vector<CatalogRow>{row});
}

TEST_F(PostgresCatalogTest, WithoutASchemaAnExistingCatalogueIsRefused) {
    std::string error;
    EXPECT_EQ(open_catalog(m_uri, "", error, CatalogOpen::EXISTING), nullptr);
    EXPECT_TRUE(
        error.starts_with("catalogue: statement failed: ERROR:  relation "
                          "\"schema_version\" does not exist"))
        << error;
}

}  // namespace
}  // namespace qm::catalog
