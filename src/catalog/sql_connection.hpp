#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

// The little a catalogue needs from a database: run a statement with parameters, read rows as
// text, open and end a transaction. One implementation per back end (SQLite, PostgreSQL); the
// catalogue's SQL is shared and uses `$1`, `$2`, ... for parameters, in order of first use.
// A connection is used by one thread at a time.

namespace qm::catalog {

// A failed open or statement; `what()` is the database's own message with the statement's
// purpose.
class CatalogError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A parameter: NULL, a 64-bit integer or a text.
using SqlValue = std::variant<std::nullptr_t, std::int64_t, std::string>;
// A result cell as text (integers in decimal); unset for NULL.
using SqlCell = std::optional<std::string>;
using SqlRow = std::vector<SqlCell>;

// The few places where the back ends' SQL differs: row locks that skip what another transaction
// holds, and table locks. Everything else is shared.
enum class SqlDialect : std::uint8_t { SQLITE, POSTGRESQL };

class SqlConnection {
public:
    virtual ~SqlConnection() = default;

    // Runs a statement; returns the number of rows it inserted, updated or deleted.
    // THROWS: CatalogError.
    virtual std::uint64_t execute(const std::string& sql, const std::vector<SqlValue>& params) = 0;
    // Runs a query and returns all its rows. THROWS: CatalogError.
    virtual std::vector<SqlRow> query(const std::string& sql,
                                      const std::vector<SqlValue>& params) = 0;
    // Starts a transaction that will write (SQLite takes its write lock at once, so that two
    // writers wait for each other instead of failing half-way). THROWS: CatalogError.
    virtual void begin() = 0;
    // Which SQL the database speaks where the back ends differ.
    virtual SqlDialect dialect() const = 0;
};

}  // namespace qm::catalog
