#include "catalog/sqlite_connection.hpp"

#include <sqlite3.h>

#include <memory>
#include <type_traits>

namespace qm::catalog {
namespace {

// How long a statement waits for another connection's write lock before it fails.
constexpr int BUSY_TIMEOUT_MS = 10'000;

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

// Binds `$N` to the Nth parameter: the shared SQL names its parameters `$1`, `$2`, ...
void bind(sqlite3_stmt* statement, const std::vector<SqlValue>& params) {
    for (std::size_t i = 0; i < params.size(); ++i) {
        const int index =
            sqlite3_bind_parameter_index(statement, ("$" + std::to_string(i + 1)).c_str());
        if (index == 0) {
            continue;
        }
        std::visit(
            [&](const auto& value) {
                using T = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<T, std::nullptr_t>) {
                    sqlite3_bind_null(statement, index);
                } else if constexpr (std::is_same_v<T, std::int64_t>) {
                    sqlite3_bind_int64(statement, index, value);
                } else {
                    sqlite3_bind_text(statement, index, value.data(),
                                      static_cast<int>(value.size()), SQLITE_TRANSIENT);
                }
            },
            params[i]);
    }
}

SqlRow read_row(sqlite3_stmt* statement) {
    SqlRow row;
    const int columns = sqlite3_column_count(statement);
    for (int i = 0; i < columns; ++i) {
        const auto* text = sqlite3_column_text(statement, i);
        if (text == nullptr) {
            row.emplace_back();
        } else {
            row.emplace_back(
                std::string(reinterpret_cast<const char*>(text),
                            static_cast<std::size_t>(sqlite3_column_bytes(statement, i))));
        }
    }
    return row;
}

}  // namespace

SqliteConnection::SqliteConnection(const std::filesystem::path& file, bool create) : m_file(file) {
    const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
    if (sqlite3_open_v2(file.c_str(), &m_db, flags, nullptr) != SQLITE_OK) {
        const std::string reason = m_db ? sqlite3_errmsg(m_db) : "out of memory";
        sqlite3_close(m_db);
        throw CatalogError("catalogue " + m_file.string() + ": cannot open: " + reason);
    }
    sqlite3_busy_timeout(m_db, BUSY_TIMEOUT_MS);
    try {
        // The first statement that reads the file: this is where a file that is not SQLite is
        // refused.
        query("PRAGMA journal_mode=WAL", {});
    } catch (...) {
        sqlite3_close(m_db);
        throw;
    }
}

SqliteConnection::~SqliteConnection() {
    sqlite3_close(m_db);
}

std::uint64_t SqliteConnection::execute(const std::string& sql,
                                        const std::vector<SqlValue>& params) {
    run(sql, params, nullptr);
    return static_cast<std::uint64_t>(sqlite3_changes64(m_db));
}

std::vector<SqlRow> SqliteConnection::query(const std::string& sql,
                                            const std::vector<SqlValue>& params) {
    std::vector<SqlRow> rows;
    run(sql, params, &rows);
    return rows;
}

void SqliteConnection::begin() {
    execute("BEGIN IMMEDIATE", {});
}

void SqliteConnection::run(const std::string& sql, const std::vector<SqlValue>& params,
                           std::vector<SqlRow>* rows) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(m_db, sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr) !=
        SQLITE_OK) {
        fail("cannot prepare a statement");
    }
    const Statement statement(raw, &sqlite3_finalize);
    bind(raw, params);
    for (;;) {
        const int step = sqlite3_step(raw);
        if (step == SQLITE_DONE) {
            return;
        }
        if (step != SQLITE_ROW) {
            fail("statement failed");
        }
        if (rows != nullptr) {
            rows->push_back(read_row(raw));
        }
    }
}

void SqliteConnection::fail(const std::string& doing) const {
    if (sqlite3_errcode(m_db) == SQLITE_NOTADB) {
        throw CatalogError("catalogue " + m_file.string() + ": not an SQLite database");
    }
    throw CatalogError("catalogue " + m_file.string() + ": " + doing + ": " + sqlite3_errmsg(m_db));
}

}  // namespace qm::catalog
