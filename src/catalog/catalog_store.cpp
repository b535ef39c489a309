#include "catalog/catalog_store.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string_view>
#include <utility>

namespace qm::catalog {
namespace {

// The columns of `legs`, in the order rows are written and read; the first two are the key.
constexpr std::array<std::string_view, 23> COLUMNS = {"uuid",
                                                      "recorder",
                                                      "session_id",
                                                      "call_id",
                                                      "leg",
                                                      "flags",
                                                      "start_us",
                                                      "last_packet_us",
                                                      "closed_by",
                                                      "side0_frames",
                                                      "side0_samples",
                                                      "side0_first_offset",
                                                      "side0_last_offset",
                                                      "side0_lost_packets",
                                                      "side1_frames",
                                                      "side1_samples",
                                                      "side1_first_offset",
                                                      "side1_last_offset",
                                                      "side1_lost_packets",
                                                      "bytes",
                                                      "path",
                                                      "state",
                                                      "removed_at_us"};

// Plain SQL both back ends accept. Changing it means a new CATALOG_SCHEMA and a migration.
constexpr std::array<std::string_view, 4> SCHEMA = {
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
    "CREATE INDEX IF NOT EXISTS legs_start_us ON legs (start_us)"};

constexpr std::array<std::string_view, 2> STATE_NAMES = {"recorded", "removed"};

// Rolls back unless committed: a failed batch leaves nothing behind.
class Transaction {
public:
    explicit Transaction(SqlConnection& connection) : m_connection(connection) {
        m_connection.begin();
    }
    ~Transaction() {
        if (!m_committed) {
            try {
                m_connection.execute("ROLLBACK", {});
            } catch (const CatalogError&) {
                // The connection is gone; the database drops the transaction itself.
            }
        }
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit() {
        m_connection.execute("COMMIT", {});
        m_committed = true;
    }

private:
    SqlConnection& m_connection;
    bool m_committed = false;
};

std::string column_list() {
    std::string out;
    for (const std::string_view column : COLUMNS) {
        out += (out.empty() ? "" : ", ") + std::string(column);
    }
    return out;
}

std::string upsert_sql() {
    std::string values;
    std::string updates;
    std::string differs;
    for (std::size_t i = 0; i < COLUMNS.size(); ++i) {
        const std::string column(COLUMNS[i]);
        values += (i == 0 ? "$" : ", $") + std::to_string(i + 1);
        if (i >= 2) {
            updates += (updates.empty() ? "" : ", ") + column + " = excluded." + column;
            differs += (differs.empty() ? "" : " OR ") + ("legs." + column) +
                       " IS DISTINCT FROM excluded." + column;
        }
    }
    return "INSERT INTO legs (" + column_list() + ") VALUES (" + values +
           ") ON CONFLICT (uuid, recorder) DO UPDATE SET " + updates + " WHERE " + differs;
}

std::int64_t signed_of(std::uint64_t value) {
    return static_cast<std::int64_t>(value);
}

SqlValue optional_value(const std::optional<std::uint32_t>& value) {
    if (!value) {
        return nullptr;
    }
    return std::int64_t{*value};
}

void add_side(std::vector<SqlValue>& values, const SideSummary& side) {
    values.emplace_back(signed_of(side.frames));
    values.emplace_back(signed_of(side.samples));
    values.push_back(optional_value(side.first_offset));
    values.push_back(optional_value(side.last_offset));
    values.emplace_back(signed_of(side.lost_packets));
}

std::vector<SqlValue> values_of(const CatalogRow& row) {
    const LegSummary& leg = row.summary;
    std::vector<SqlValue> values;
    values.reserve(COLUMNS.size());
    values.emplace_back(leg.uuid);
    values.emplace_back(recorder_name(leg));
    values.emplace_back(signed_of(leg.session_id));
    values.emplace_back(leg.call_id);
    values.emplace_back(std::string(direction_name(leg.leg)));
    values.emplace_back(std::int64_t{leg.flags});
    values.emplace_back(signed_of(leg.start_us));
    values.emplace_back(signed_of(leg.last_packet_us));
    values.emplace_back(std::string(close_name(leg.closed_by)));
    add_side(values, leg.sides[0]);
    add_side(values, leg.sides[1]);
    values.emplace_back(signed_of(leg.bytes));
    values.emplace_back(leg.path);
    values.emplace_back(std::string(state_name(row.state)));
    if (row.removed_at_us) {
        values.emplace_back(signed_of(*row.removed_at_us));
    } else {
        values.emplace_back(nullptr);
    }
    return values;
}

// Reads a row's cells in column order; THROWS CatalogError for a cell this code did not write.
class CellReader {
public:
    explicit CellReader(const SqlRow& row) : m_row(row) {}

    const std::string& text() {
        const SqlCell& cell = m_row.at(m_next++);
        if (!cell) {
            throw CatalogError("catalogue: column " + std::string(COLUMNS.at(m_next - 1)) +
                               " is NULL");
        }
        return *cell;
    }
    std::uint64_t number() {
        const std::string& cell = text();
        std::int64_t value = 0;
        const auto [end, error] = std::from_chars(cell.data(), cell.data() + cell.size(), value);
        if (error != std::errc{} || end != cell.data() + cell.size()) {
            throw CatalogError("catalogue: column " + std::string(COLUMNS.at(m_next - 1)) +
                               " holds \"" + cell + "\", not a number");
        }
        return static_cast<std::uint64_t>(value);
    }
    std::optional<std::uint64_t> optional_number() {
        if (!m_row.at(m_next)) {
            ++m_next;
            return std::nullopt;
        }
        return number();
    }
    template <typename Enum, std::size_t N>
    Enum one_of(const std::array<std::string_view, N>& names) {
        const std::string& cell = text();
        const auto found = std::find(names.begin(), names.end(), cell);
        if (found == names.end()) {
            throw CatalogError("catalogue: column " + std::string(COLUMNS.at(m_next - 1)) +
                               " holds the unknown value \"" + cell + "\"");
        }
        return static_cast<Enum>(found - names.begin());
    }

private:
    const SqlRow& m_row;
    std::size_t m_next = 0;
};

template <typename Enum, std::size_t N>
std::array<std::string_view, N> names_of(std::string_view (*name)(Enum)) {
    std::array<std::string_view, N> names;
    for (std::size_t i = 0; i < N; ++i) {
        names[i] = name(static_cast<Enum>(i));
    }
    return names;
}

std::optional<std::uint32_t> offset_of(const std::optional<std::uint64_t>& value) {
    if (!value) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*value);
}

SideSummary read_side(CellReader& cells) {
    SideSummary side;
    side.frames = cells.number();
    side.samples = cells.number();
    side.first_offset = offset_of(cells.optional_number());
    side.last_offset = offset_of(cells.optional_number());
    side.lost_packets = cells.number();
    return side;
}

// The recorder's "host:port" back into the summary's host and port.
void split_recorder(const std::string& recorder, LegSummary& leg) {
    const std::size_t colon = recorder.rfind(':');
    leg.host = recorder.substr(0, colon);
    const std::string port = colon == std::string::npos ? "" : recorder.substr(colon + 1);
    std::from_chars(port.data(), port.data() + port.size(), leg.port);
}

CatalogRow row_of(const SqlRow& cells_in) {
    CellReader cells(cells_in);
    CatalogRow row;
    LegSummary& leg = row.summary;
    leg.uuid = cells.text();
    split_recorder(cells.text(), leg);
    leg.session_id = cells.number();
    leg.call_id = cells.text();
    leg.leg = cells.one_of<LegDirection>(names_of<LegDirection, 2>(&direction_name));
    leg.flags = static_cast<std::uint16_t>(cells.number());
    leg.start_us = cells.number();
    leg.last_packet_us = cells.number();
    leg.closed_by = cells.one_of<LegClose>(names_of<LegClose, 4>(&close_name));
    leg.sides[0] = read_side(cells);
    leg.sides[1] = read_side(cells);
    leg.bytes = cells.number();
    leg.path = cells.text();
    row.state = cells.one_of<RowState>(STATE_NAMES);
    row.removed_at_us = cells.optional_number();
    return row;
}

// A time filter's bound as the signed column holds it.
std::int64_t time_bound(std::uint64_t us) {
    return signed_of(std::min<std::uint64_t>(us, std::numeric_limits<std::int64_t>::max()));
}

}  // namespace

std::string_view state_name(RowState state) {
    return STATE_NAMES.at(static_cast<std::size_t>(state));
}

std::string recorder_name(const LegSummary& summary) {
    return summary.host + ":" + std::to_string(summary.port);
}

CatalogStore::CatalogStore(std::unique_ptr<SqlConnection> connection, bool create)
    : m_connection(std::move(connection)) {
    ensure_schema(create);
}

void CatalogStore::ensure_schema(bool create) {
    if (create) {
        Transaction transaction(*m_connection);
        for (const std::string_view statement : SCHEMA) {
            m_connection->execute(std::string(statement), {});
        }
        if (m_connection->query("SELECT version FROM schema_version", {}).empty()) {
            m_connection->execute("INSERT INTO schema_version (version) VALUES ($1)",
                                  {CATALOG_SCHEMA});
        }
        transaction.commit();
    }
    const auto rows = m_connection->query("SELECT MAX(version) FROM schema_version", {});
    if (rows.empty() || rows[0].empty() || !rows[0][0]) {
        throw CatalogError("catalogue: no schema version");
    }
    m_schema_version = std::stoll(*rows[0][0]);
    if (m_schema_version > CATALOG_SCHEMA) {
        throw CatalogError("catalogue: schema version " + std::to_string(m_schema_version) +
                           " is newer than this program's " + std::to_string(CATALOG_SCHEMA));
    }
}

bool CatalogStore::exists(const CatalogRow& row) {
    return !m_connection
                ->query("SELECT 1 FROM legs WHERE uuid = $1 AND recorder = $2",
                        {row.summary.uuid, recorder_name(row.summary)})
                .empty();
}

UpsertCounts CatalogStore::upsert(std::span<const CatalogRow> rows) {
    static const std::string sql = upsert_sql();
    UpsertCounts counts;
    Transaction transaction(*m_connection);
    for (const CatalogRow& row : rows) {
        const bool existed = exists(row);
        const std::uint64_t changed = m_connection->execute(sql, values_of(row));
        if (!existed) {
            ++counts.added;
        } else if (changed != 0) {
            ++counts.updated;
        } else {
            ++counts.unchanged;
        }
    }
    transaction.commit();
    return counts;
}

std::size_t CatalogStore::mark_removed(const std::string& recorder,
                                       std::span<const std::string> paths,
                                       std::uint64_t removed_at_us) {
    std::size_t marked = 0;
    Transaction transaction(*m_connection);
    for (const std::string& path : paths) {
        marked += m_connection->execute(
            "UPDATE legs SET state = 'removed', removed_at_us = $1 "
            "WHERE recorder = $2 AND path = $3 AND state = 'recorded'",
            {signed_of(removed_at_us), recorder, path});
    }
    transaction.commit();
    return marked;
}

// The prefix is compared with substr rather than LIKE, which would take '_' and '%' in a
// directory name as patterns, or a range, which a server's collation may order otherwise.
std::size_t CatalogStore::mark_removed_under(const std::string& recorder,
                                             std::span<const RemovedDirectory> directories) {
    std::size_t marked = 0;
    Transaction transaction(*m_connection);
    for (const RemovedDirectory& removed : directories) {
        marked += m_connection->execute(
            "UPDATE legs SET state = 'removed', removed_at_us = $1 "
            "WHERE recorder = $2 AND state = 'recorded' "
            "AND substr(path, 1, length(CAST($3 AS TEXT))) = $3",
            {signed_of(removed.removed_at_us), recorder, removed.directory + "/"});
    }
    transaction.commit();
    return marked;
}

std::vector<CatalogRow> CatalogStore::find(const FindQuery& query) {
    std::string where;
    std::vector<SqlValue> params;
    const auto add = [&](const std::string& condition, SqlValue value) {
        params.push_back(std::move(value));
        where += (where.empty() ? " WHERE " : " AND ") + condition + " $" +
                 std::to_string(params.size());
    };
    if (query.call_id) {
        add("call_id =", *query.call_id);
    }
    if (query.uuid) {
        add("uuid =", *query.uuid);
    }
    if (query.recorder) {
        add("recorder =", *query.recorder);
    }
    if (query.from_us) {
        add("start_us >=", time_bound(*query.from_us));
    }
    if (query.to_us) {
        add("start_us <", time_bound(*query.to_us));
    }
    if (!query.include_removed) {
        add("state =", std::string(state_name(RowState::RECORDED)));
    }
    const std::size_t limit =
        std::min<std::size_t>(query.limit.value_or(std::numeric_limits<std::int64_t>::max()),
                              std::numeric_limits<std::int64_t>::max());
    params.emplace_back(static_cast<std::int64_t>(limit));
    params.emplace_back(static_cast<std::int64_t>(query.offset));
    const std::string sql = "SELECT " + column_list() + " FROM legs" + where +
                            " ORDER BY start_us, uuid, recorder LIMIT $" +
                            std::to_string(params.size() - 1) + " OFFSET $" +
                            std::to_string(params.size());
    std::vector<CatalogRow> rows;
    for (const SqlRow& cells : m_connection->query(sql, params)) {
        rows.push_back(row_of(cells));
    }
    return rows;
}

}  // namespace qm::catalog
