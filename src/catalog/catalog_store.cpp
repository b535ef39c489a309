#include "catalog/catalog_store.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace qm::catalog {
namespace {

// The columns of `legs`, in the order rows are written and read; the first two are the key.
constexpr std::array<std::string_view, 25> COLUMNS = {"uuid",
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
                                                      "removed_at_us",
                                                      "archive_url",
                                                      "archived_at_us"};
// The columns a version-1 schema has: the first ones of COLUMNS.
constexpr std::size_t VERSION_1_COLUMNS = 23;

// Plain SQL both back ends accept. Changing it means a new CATALOG_SCHEMA and an entry in
// UPGRADES. The version's table comes first, and is locked before the others are touched.
constexpr std::string_view VERSION_TABLE =
    "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)";
constexpr std::array<std::string_view, 3> SCHEMA = {
    "CREATE TABLE IF NOT EXISTS legs ("
    "uuid TEXT NOT NULL, recorder TEXT NOT NULL, session_id BIGINT NOT NULL, "
    "call_id TEXT NOT NULL, leg TEXT NOT NULL, flags INTEGER NOT NULL, "
    "start_us BIGINT NOT NULL, last_packet_us BIGINT NOT NULL, closed_by TEXT NOT NULL, "
    "side0_frames BIGINT NOT NULL, side0_samples BIGINT NOT NULL, side0_first_offset BIGINT, "
    "side0_last_offset BIGINT, side0_lost_packets BIGINT NOT NULL, "
    "side1_frames BIGINT NOT NULL, side1_samples BIGINT NOT NULL, side1_first_offset BIGINT, "
    "side1_last_offset BIGINT, side1_lost_packets BIGINT NOT NULL, "
    "bytes BIGINT NOT NULL, path TEXT NOT NULL, state TEXT NOT NULL, removed_at_us BIGINT, "
    "archive_url TEXT, archived_at_us BIGINT, claimed_by TEXT, claim_until_us BIGINT, "
    "PRIMARY KEY (uuid, recorder))",
    "CREATE INDEX IF NOT EXISTS legs_call_id ON legs (call_id)",
    "CREATE INDEX IF NOT EXISTS legs_start_us ON legs (start_us)"};

// What brings a schema of version N up to N + 1 (UPGRADES[N - 1]), run in one transaction with
// the new version.
constexpr std::array<std::array<std::string_view, 4>, 1> UPGRADES = {{
    {"ALTER TABLE legs ADD COLUMN archive_url TEXT",
     "ALTER TABLE legs ADD COLUMN archived_at_us BIGINT",
     "ALTER TABLE legs ADD COLUMN claimed_by TEXT",
     "ALTER TABLE legs ADD COLUMN claim_until_us BIGINT"},
}};
static_assert(UPGRADES.size() == CATALOG_SCHEMA - 1);

// Keeps two openers from upgrading the same schema at once: the second waits, then finds it
// upgraded. Taken before `legs` is touched: creating an index that exists still locks the table
// against the upgrade's ALTER, and two openers holding that would deadlock. SQLite needs none,
// as its transactions that write take the write lock at once.
std::string_view schema_lock(SqlDialect dialect) {
    return dialect == SqlDialect::POSTGRESQL ? "LOCK TABLE schema_version IN EXCLUSIVE MODE" : "";
}

// What makes the rows a claim selects its own, the claim being one statement: PostgreSQL locks
// them and passes over those another archiver's claim has locked; on SQLite a statement that
// writes takes the database's write lock before it reads, so claims run one after the other.
std::string_view claim_lock(SqlDialect dialect) {
    return dialect == SqlDialect::POSTGRESQL ? " FOR UPDATE SKIP LOCKED" : "";
}

constexpr std::array<std::string_view, 3> STATE_NAMES = {"recorded", "removed", "archived"};

// What an upsert leaves as stored on an archived row: the recorder knows nothing of the archive.
constexpr std::array<std::string_view, 4> KEPT_WHEN_ARCHIVED = {"state", "removed_at_us",
                                                                "archive_url", "archived_at_us"};

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

// The first `count` columns; the others, which an older schema lacks, read as NULL.
std::string column_list(std::size_t count = COLUMNS.size()) {
    std::string out;
    for (std::size_t i = 0; i < COLUMNS.size(); ++i) {
        out += (i == 0 ? "" : ", ") + (i < count ? std::string(COLUMNS[i]) : "NULL");
    }
    return out;
}

// The value an upsert writes into `column`.
std::string upserted_value(const std::string& column) {
    const bool kept = std::find(KEPT_WHEN_ARCHIVED.begin(), KEPT_WHEN_ARCHIVED.end(), column) !=
                      KEPT_WHEN_ARCHIVED.end();
    return kept ? "CASE WHEN legs.state = 'archived' THEN legs." + column + " ELSE excluded." +
                      column + " END"
                : "excluded." + column;
}

std::string upsert_sql() {
    std::string values;
    std::string updates;
    std::string differs;
    for (std::size_t i = 0; i < COLUMNS.size(); ++i) {
        const std::string column(COLUMNS[i]);
        values += (i == 0 ? "$" : ", $") + std::to_string(i + 1);
        if (i >= 2) {
            const std::string value = upserted_value(column);
            updates += (updates.empty() ? "" : ", ") + column + " = " + value;
            differs +=
                (differs.empty() ? "" : " OR ") + ("legs." + column) + " IS DISTINCT FROM " + value;
        }
    }
    return "INSERT INTO legs (" + column_list() + ") VALUES (" + values +
           ") ON CONFLICT (uuid, recorder) DO UPDATE SET " + updates + " WHERE " + differs;
}

std::int64_t signed_of(std::uint64_t value) {
    return static_cast<std::int64_t>(value);
}

template <typename T>
SqlValue optional_value(const std::optional<T>& value) {
    if (!value) {
        return nullptr;
    }
    if constexpr (std::is_same_v<T, std::string>) {
        return *value;
    } else {
        return signed_of(*value);
    }
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
    values.push_back(optional_value(row.removed_at_us));
    values.push_back(optional_value(row.archive_url));
    values.push_back(optional_value(row.archived_at_us));
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
    std::optional<std::string> optional_text() {
        if (!m_row.at(m_next)) {
            ++m_next;
            return std::nullopt;
        }
        return text();
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
    row.archive_url = cells.optional_text();
    row.archived_at_us = cells.optional_number();
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

CatalogRow recorded_row(LegSummary summary) {
    CatalogRow row;
    row.summary = std::move(summary);
    return row;
}

std::string recorder_name(const LegSummary& summary) {
    return summary.host + ":" + std::to_string(summary.port);
}

LegKey key_of(const CatalogRow& row) {
    return LegKey{row.summary.uuid, recorder_name(row.summary)};
}

CatalogStore::CatalogStore(std::unique_ptr<SqlConnection> connection, bool create)
    : m_connection(std::move(connection)) {
    ensure_schema(create);
}

void CatalogStore::ensure_schema(bool create) {
    if (create) {
        Transaction transaction(*m_connection);
        m_connection->execute(std::string(VERSION_TABLE), {});
        if (const std::string_view lock = schema_lock(m_connection->dialect()); !lock.empty()) {
            m_connection->execute(std::string(lock), {});
        }
        for (const std::string_view statement : SCHEMA) {
            m_connection->execute(std::string(statement), {});
        }
        const std::int64_t found = read_version();
        if (found == 0) {
            m_connection->execute("INSERT INTO schema_version (version) VALUES ($1)",
                                  {CATALOG_SCHEMA});
        } else if (found < CATALOG_SCHEMA) {
            upgrade(found);
        }
        transaction.commit();
    }
    m_schema_version = read_version();
    if (m_schema_version == 0) {
        throw CatalogError("catalogue: no schema version");
    }
    if (m_schema_version > CATALOG_SCHEMA) {
        throw CatalogError("catalogue: schema version " + std::to_string(m_schema_version) +
                           " is newer than this program's " + std::to_string(CATALOG_SCHEMA));
    }
}

void CatalogStore::upgrade(std::int64_t found) {
    for (std::int64_t version = found; version < CATALOG_SCHEMA; ++version) {
        for (const std::string_view statement :
             UPGRADES.at(static_cast<std::size_t>(version - 1))) {
            m_connection->execute(std::string(statement), {});
        }
    }
    m_connection->execute("UPDATE schema_version SET version = $1", {CATALOG_SCHEMA});
}

std::int64_t CatalogStore::read_version() {
    const auto rows = m_connection->query("SELECT MAX(version) FROM schema_version", {});
    if (rows.empty() || rows[0].empty() || !rows[0][0]) {
        return 0;
    }
    return std::stoll(*rows[0][0]);
}

bool CatalogStore::current() {
    // Another program may have upgraded the schema since it was read.
    if (m_schema_version < CATALOG_SCHEMA) {
        m_schema_version = read_version();
    }
    return m_schema_version == CATALOG_SCHEMA;
}

void CatalogStore::require_current() {
    if (!current()) {
        throw CatalogError("catalogue: schema version " + std::to_string(m_schema_version) +
                           " is older than this program's " + std::to_string(CATALOG_SCHEMA) +
                           " and was opened only to read; a program that may create the "
                           "catalogue (the recorder, quillmar catalog reindex) upgrades it");
    }
}

const std::string& CatalogStore::select_list() {
    static const std::string all = column_list();
    static const std::string version_1 = column_list(VERSION_1_COLUMNS);
    return current() ? all : version_1;
}

bool CatalogStore::exists(const CatalogRow& row) {
    return !m_connection
                ->query("SELECT 1 FROM legs WHERE uuid = $1 AND recorder = $2",
                        {row.summary.uuid, recorder_name(row.summary)})
                .empty();
}

UpsertCounts CatalogStore::upsert(std::span<const CatalogRow> rows) {
    static const std::string sql = upsert_sql();
    require_current();
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
        add("state <>", std::string(state_name(RowState::REMOVED)));
    }
    const std::size_t limit =
        std::min<std::size_t>(query.limit.value_or(std::numeric_limits<std::int64_t>::max()),
                              std::numeric_limits<std::int64_t>::max());
    params.emplace_back(static_cast<std::int64_t>(limit));
    params.emplace_back(static_cast<std::int64_t>(query.offset));
    const std::string sql = "SELECT " + select_list() + " FROM legs" + where +
                            " ORDER BY start_us, uuid, recorder LIMIT $" +
                            std::to_string(params.size() - 1) + " OFFSET $" +
                            std::to_string(params.size());
    std::vector<CatalogRow> rows;
    for (const SqlRow& cells : m_connection->query(sql, params)) {
        rows.push_back(row_of(cells));
    }
    return rows;
}

std::optional<CatalogRow> CatalogStore::leg(const std::string& uuid) {
    FindQuery query;
    query.uuid = uuid;
    query.include_removed = true;
    std::vector<CatalogRow> rows = find(query);
    // The states in the order they are preferred: a local file first, then the archive's copy.
    constexpr std::array<RowState, 3> PREFERRED = {RowState::RECORDED, RowState::ARCHIVED,
                                                   RowState::REMOVED};
    for (const RowState state : PREFERRED) {
        const auto found = std::find_if(rows.begin(), rows.end(), [state](const CatalogRow& row) {
            return row.state == state;
        });
        if (found != rows.end()) {
            return std::move(*found);
        }
    }
    return std::nullopt;
}

std::vector<CatalogRow> CatalogStore::claim(const std::string& archiver, std::uint64_t now_us,
                                            std::uint64_t lease_us, std::size_t limit,
                                            std::span<const std::string> recorders) {
    require_current();
    std::vector<SqlValue> params = {archiver, signed_of(now_us + lease_us), signed_of(now_us),
                                    static_cast<std::int64_t>(std::min<std::size_t>(
                                        limit, std::numeric_limits<std::int64_t>::max()))};
    std::string of_recorders;
    for (const std::string& recorder : recorders) {
        params.emplace_back(recorder);
        of_recorders +=
            (of_recorders.empty() ? " AND recorder IN ($" : ", $") + std::to_string(params.size());
    }
    if (!of_recorders.empty()) {
        of_recorders += ")";
    }
    const std::string sql =
        "UPDATE legs SET claimed_by = $1, claim_until_us = $2 WHERE (uuid, recorder) IN "
        "(SELECT uuid, recorder FROM legs WHERE state = 'recorded' "
        "AND (claim_until_us IS NULL OR claim_until_us <= $3)" +
        of_recorders + " ORDER BY start_us, uuid, recorder LIMIT $4" +
        std::string(claim_lock(m_connection->dialect())) + ") RETURNING " + column_list();
    std::vector<CatalogRow> rows;
    for (const SqlRow& cells : m_connection->query(sql, params)) {
        rows.push_back(row_of(cells));
    }
    // RETURNING gives the rows in no particular order: back into the order `find` gives.
    std::sort(rows.begin(), rows.end(), [](const CatalogRow& a, const CatalogRow& b) {
        return std::make_tuple(a.summary.start_us, a.summary.uuid, recorder_name(a.summary)) <
               std::make_tuple(b.summary.start_us, b.summary.uuid, recorder_name(b.summary));
    });
    return rows;
}

std::size_t CatalogStore::renew(const std::string& archiver, std::span<const LegKey> keys,
                                std::uint64_t until_us) {
    require_current();
    std::size_t renewed = 0;
    Transaction transaction(*m_connection);
    for (const LegKey& key : keys) {
        renewed += m_connection->execute(
            "UPDATE legs SET claim_until_us = $1 "
            "WHERE uuid = $2 AND recorder = $3 AND claimed_by = $4 AND state = 'recorded'",
            {signed_of(until_us), key.uuid, key.recorder, archiver});
    }
    transaction.commit();
    return renewed;
}

// A leg removed from the storage while it was uploaded is archived all the same: the archive
// holds a verified copy.
bool CatalogStore::mark_archived(const std::string& archiver, const LegKey& key,
                                 const std::string& url, std::uint64_t archived_at_us) {
    require_current();
    return m_connection->execute(
               "UPDATE legs SET state = 'archived', archive_url = $1, archived_at_us = $2, "
               "claimed_by = NULL, claim_until_us = NULL "
               "WHERE uuid = $3 AND recorder = $4 AND claimed_by = $5 AND state <> 'archived'",
               {url, signed_of(archived_at_us), key.uuid, key.recorder, archiver}) != 0;
}

bool CatalogStore::release(const std::string& archiver, const LegKey& key) {
    require_current();
    return m_connection->execute(
               "UPDATE legs SET claimed_by = NULL, claim_until_us = NULL "
               "WHERE uuid = $1 AND recorder = $2 AND claimed_by = $3",
               {key.uuid, key.recorder, archiver}) != 0;
}

std::size_t CatalogStore::release_all(const std::string& archiver) {
    require_current();
    return m_connection->execute(
        "UPDATE legs SET claimed_by = NULL, claim_until_us = NULL WHERE claimed_by = $1",
        {archiver});
}

ArchiveBacklog CatalogStore::backlog() {
    const std::vector<SqlRow> rows = m_connection->query(
        "SELECT COUNT(*), COALESCE(SUM(bytes), 0) FROM legs WHERE state = 'recorded'", {});
    if (rows.size() != 1 || rows[0].size() != 2 || !rows[0][0] || !rows[0][1]) {
        throw CatalogError("catalogue: the backlog's count came back empty");
    }
    return ArchiveBacklog{std::stoull(*rows[0][0]), std::stoull(*rows[0][1])};
}

}  // namespace qm::catalog
