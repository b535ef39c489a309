#include "catalog/postgres_connection.hpp"

#include <libpq-fe.h>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <type_traits>

namespace qm::catalog {
namespace {

using Result = std::unique_ptr<PGresult, decltype(&PQclear)>;

// libpq's message on one line. It ends in a line break and often has more (a hint, a second
// message, the statement's position), while it goes into one log line or one line of a tool's
// errors: each line break, with the indentation after it, becomes one blank.
std::string message_of(const PGconn* connection) {
    std::string message;
    bool after_break = false;
    for (const char c : std::string_view(PQerrorMessage(connection))) {
        if (c == '\n' || (after_break && (c == '\t' || c == ' '))) {
            after_break = true;
            continue;
        }
        if (after_break && !message.empty()) {
            message += ' ';
        }
        after_break = false;
        message += c;
    }
    return message;
}

// Every parameter as text (NULL as a null pointer): the server gives it the column's type.
Result run(PGconn* connection, const std::string& sql, const std::vector<SqlValue>& params) {
    std::vector<std::optional<std::string>> texts;
    texts.reserve(params.size());
    for (const SqlValue& param : params) {
        std::visit(
            [&](const auto& value) {
                using T = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<T, std::nullptr_t>) {
                    texts.emplace_back();
                } else if constexpr (std::is_same_v<T, std::int64_t>) {
                    texts.emplace_back(std::to_string(value));
                } else {
                    texts.emplace_back(value);
                }
            },
            param);
    }
    std::vector<const char*> values;
    values.reserve(texts.size());
    for (const auto& text : texts) {
        values.push_back(text ? text->c_str() : nullptr);
    }
    Result result(PQexecParams(connection, sql.c_str(), static_cast<int>(values.size()), nullptr,
                               values.data(), nullptr, nullptr, 0),
                  &PQclear);
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        throw CatalogError("catalogue: statement failed: " + message_of(connection));
    }
    return result;
}

// How long a connection may take before it counts as failed, unless PGCONNECT_TIMEOUT or the URI
// says otherwise: libpq's own default waits for the system's TCP time-out, minutes during which
// the recorder's catalogue thread could not even be stopped.
constexpr const char* CONNECT_TIMEOUT_S = "10";

PGconn* connect(const std::string& conninfo) {
    if (std::getenv("PGCONNECT_TIMEOUT") != nullptr) {
        return PQconnectdb(conninfo.c_str());
    }
    // The URI comes after the default, so that a connect_timeout in it wins.
    const char* const keywords[] = {"connect_timeout", "dbname", nullptr};
    const char* const values[] = {CONNECT_TIMEOUT_S, conninfo.c_str(), nullptr};
    return PQconnectdbParams(keywords, values, 1);
}

}  // namespace

PostgresConnection::PostgresConnection(const std::string& conninfo)
    : m_connection(connect(conninfo)) {
    if (m_connection == nullptr) {
        throw CatalogError("catalogue: cannot connect to PostgreSQL: out of memory");
    }
    if (PQstatus(m_connection) != CONNECTION_OK) {
        const std::string reason = message_of(m_connection);
        PQfinish(m_connection);
        throw CatalogError("catalogue: cannot connect to PostgreSQL: " + reason);
    }
    // The catalogue's own notices ("relation already exists, skipping") are not the operator's.
    run(m_connection, "SET client_min_messages TO warning", {});
}

PostgresConnection::~PostgresConnection() {
    PQfinish(m_connection);
}

std::uint64_t PostgresConnection::execute(const std::string& sql,
                                          const std::vector<SqlValue>& params) {
    const Result result = run(m_connection, sql, params);
    return std::strtoull(PQcmdTuples(result.get()), nullptr, 10);
}

std::vector<SqlRow> PostgresConnection::query(const std::string& sql,
                                              const std::vector<SqlValue>& params) {
    const Result result = run(m_connection, sql, params);
    std::vector<SqlRow> rows(static_cast<std::size_t>(PQntuples(result.get())));
    for (int r = 0; r < PQntuples(result.get()); ++r) {
        for (int c = 0; c < PQnfields(result.get()); ++c) {
            SqlRow& row = rows[static_cast<std::size_t>(r)];
            if (PQgetisnull(result.get(), r, c)) {
                row.emplace_back();
            } else {
                row.emplace_back(
                    std::string(PQgetvalue(result.get(), r, c),
                                static_cast<std::size_t>(PQgetlength(result.get(), r, c))));
            }
        }
    }
    return rows;
}

void PostgresConnection::begin() {
    execute("BEGIN", {});
}

}  // namespace qm::catalog
