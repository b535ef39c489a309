#pragma once

#include <string>
#include <vector>

#include "catalog/sql_connection.hpp"

struct pg_conn;

// A catalogue in a PostgreSQL database that several recorders may share. The connection string is
// a libpq URI or key=value string handed to libpq as is: passwords come from libpq's own sources
// (PGPASSFILE, ~/.pgpass, PGSERVICE), never from the string the operator configures.
// One thread at a time.

namespace qm::catalog {

class PostgresConnection final : public SqlConnection {
public:
    // Connects. THROWS: CatalogError with libpq's reason.
    explicit PostgresConnection(const std::string& conninfo);
    ~PostgresConnection() override;

    PostgresConnection(const PostgresConnection&) = delete;
    PostgresConnection& operator=(const PostgresConnection&) = delete;

    std::uint64_t execute(const std::string& sql, const std::vector<SqlValue>& params) override;
    std::vector<SqlRow> query(const std::string& sql, const std::vector<SqlValue>& params) override;
    void begin() override;
    SqlDialect dialect() const override { return SqlDialect::POSTGRESQL; }

private:
    pg_conn* m_connection = nullptr;
};

}  // namespace qm::catalog
