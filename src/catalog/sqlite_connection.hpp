#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "catalog/sql_connection.hpp"

struct sqlite3;

// A catalogue in one SQLite file. Opened in WAL mode, so that readers (`quillmar find`) never
// block the writer, with a busy timeout, so that two writers wait for each other rather than fail.
// One thread at a time.

namespace qm::catalog {

class SqliteConnection final : public SqlConnection {
public:
    // Opens the file, creating it when `create` is set. THROWS: CatalogError naming the file, also
    // for a file that is not an SQLite database.
    SqliteConnection(const std::filesystem::path& file, bool create);
    ~SqliteConnection() override;

    SqliteConnection(const SqliteConnection&) = delete;
    SqliteConnection& operator=(const SqliteConnection&) = delete;

    std::uint64_t execute(const std::string& sql, const std::vector<SqlValue>& params) override;
    std::vector<SqlRow> query(const std::string& sql, const std::vector<SqlValue>& params) override;
    void begin() override;
    SqlDialect dialect() const override { return SqlDialect::SQLITE; }

private:
    // Runs `sql`, handing each row to `row` when it is set.
    void run(const std::string& sql, const std::vector<SqlValue>& params,
             std::vector<SqlRow>* rows);
    [[noreturn]] void fail(const std::string& doing) const;

    std::filesystem::path m_file;
    sqlite3* m_db = nullptr;
};

}  // namespace qm::catalog
