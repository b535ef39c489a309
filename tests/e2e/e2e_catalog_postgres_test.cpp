// The catalogue on a real PostgreSQL server: the checks every back end shares, plus what only a
// server has (reconnecting to the same database, a refused connection).

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "../catalog/catalog_store_checks.hpp"
#include "catalog/open_catalog.hpp"
#include "catalog/postgres_connection.hpp"
#include "postgres_server.hpp"
#include "temp_directory.hpp"

namespace qm::catalog {
namespace {

class PostgresCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_server = std::make_unique<qm::test::PostgresServer>(m_directory.path());
        ::setenv("PGPASSFILE", m_server->password_file().c_str(), 1);
        m_server->create_database("recordings");
    }

    std::unique_ptr<CatalogStore> open(CatalogOpen mode = CatalogOpen::CREATE) {
        m_error.clear();
        auto store = open_catalog(m_server->uri("recordings"), "", m_error, mode);
        EXPECT_NE(store, nullptr) << m_error;
        return store;
    }

    qm::test::TempDirectory m_directory;
    std::unique_ptr<qm::test::PostgresServer> m_server;
    std::string m_error;
};

TEST_F(PostgresCatalogTest, CreatesTheSchemaOnceWithItsVersion) {
    ASSERT_NE(open(), nullptr);
    const auto again = open(CatalogOpen::EXISTING);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->schema_version(), 1);
    PostgresConnection connection(m_server->uri("recordings"));
    EXPECT_EQ(connection.query("SELECT version FROM schema_version", {}),
              (std::vector<SqlRow>{{SqlCell("1")}}));
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

TEST_F(PostgresCatalogTest, KeepsRowsAcrossARestartAndReportsAnOutage) {
    const CatalogRow row = test::example_row(2);
    open()->upsert({&row, 1});
    m_server->stop();
    std::string error;
    EXPECT_EQ(open_catalog(m_server->uri("recordings"), "", error), nullptr);
    EXPECT_TRUE(error.starts_with("catalogue: cannot connect to PostgreSQL: ")) << error;
    // libpq's reason has a hint on a line of its own; the log line must not break.
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    m_server->start();
    const auto store = open(CatalogOpen::EXISTING);
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store->find(FindQuery{}), std::vector<CatalogRow>{row});
}

TEST_F(PostgresCatalogTest, WithoutASchemaAnExistingCatalogueIsRefused) {
    std::string error;
    EXPECT_EQ(open_catalog(m_server->uri("recordings"), "", error, CatalogOpen::EXISTING), nullptr);
    EXPECT_TRUE(
        error.starts_with("catalogue: statement failed: ERROR:  relation "
                          "\"schema_version\" does not exist"))
        << error;
}

}  // namespace
}  // namespace qm::catalog
