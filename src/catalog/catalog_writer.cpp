#include "catalog/catalog_writer.hpp"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "catalog/catalog_reindex.hpp"
#include "catalog/open_catalog.hpp"
#include "log/logger.hpp"
#include "utils/time.hpp"

namespace qm::catalog {
namespace {

constexpr std::uint64_t FIRST_RETRY_MS = 1000;
constexpr std::uint64_t LAST_RETRY_MS = 10000;
constexpr auto BATCH_WAIT = std::chrono::seconds(1);

}  // namespace

CatalogWriter::CatalogWriter(std::string location, std::filesystem::path storage,
                             std::unique_ptr<CatalogStore> store, CatalogWriterStatistic& statistic)
    : m_location(std::move(location)),
      m_storage(std::move(storage)),
      m_statistic(statistic),
      m_store(std::move(store)) {
    set_name("qm-catalog");
}

CatalogWriter::~CatalogWriter() {
    static_cast<void>(stop());
}

void CatalogWriter::describe_recorder(std::string recorder, std::uint64_t started_us) {
    m_recorder = std::move(recorder);
    m_started_us = started_us;
}

void CatalogWriter::leg_closed(LegSummary summary) {
    queue(std::move(summary));
}

void CatalogWriter::directory_removed(std::string directory, std::uint64_t removed_at_us) {
    queue(RemovedDirectory{std::move(directory), removed_at_us});
}

void CatalogWriter::queue(Work work) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_queue.size() >= QUEUE_CAPACITY) {
            m_overflowed = true;
            ++m_statistic.rows_overflowed;
            return;
        }
        m_queue.push_back(std::move(work));
        m_statistic.rows_waiting = m_queue.size();
    }
    m_wake.notify_one();
}

void CatalogWriter::run() {
    QM_LOG_THREAD_STARTED("CATALOG_WRITER");
    while (is_running()) {
        if (!connect() || !catch_up()) {
            if (!wait_to_retry()) {
                break;
            }
            continue;
        }
        const std::deque<Work> batch = take_batch(true);
        if (!batch.empty() && !write(batch)) {
            static_cast<void>(wait_to_retry());
        }
    }
    // What was queued before the stop goes in while the catalogue answers; the rest is on disk
    // for the next start's catch-up.
    for (std::deque<Work> batch = take_batch(false); !batch.empty() && m_store;
         batch = take_batch(false)) {
        static_cast<void>(write(batch));
    }
}

int CatalogWriter::stop() {
    if (!is_running()) {
        return 0;
    }
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    request_stop();
    m_wake.notify_one();
    return QM_LOG_THREAD_STOPPED("CATALOG_WRITER", join());
}

std::deque<CatalogWriter::Work> CatalogWriter::take_batch(bool wait) {
    std::unique_lock lock(m_mutex);
    if (wait) {
        m_wake.wait_for(lock, BATCH_WAIT, [this] { return !m_queue.empty() || m_stopping; });
    }
    std::deque<Work> batch;
    const std::size_t count = std::min(m_queue.size(), BATCH);
    std::move(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(count),
              std::back_inserter(batch));
    m_queue.erase(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(count));
    m_statistic.rows_waiting = m_queue.size();
    if (m_overflowed) {
        m_overflowed = false;
        m_catch_up = true;
    }
    return batch;
}

bool CatalogWriter::connect() {
    if (m_store) {
        return true;
    }
    std::string error;
    m_store = open_catalog(m_location, m_storage, error);
    if (!m_store) {
        fail(error);
        return false;
    }
    return true;
}

bool CatalogWriter::catch_up() {
    if (!m_catch_up) {
        return true;
    }
    // What waited in the queue goes first: the cleanup's removals keep their own times, and the
    // walk then has fewer legs to read.
    for (std::deque<Work> batch = take_batch(false); !batch.empty(); batch = take_batch(false)) {
        if (!write(batch)) {
            return false;
        }
    }
    ReindexOptions options;
    options.storage = m_storage;
    options.recorder = m_recorder;
    options.now_us = utils::time::now_us();
    options.only_missing = true;
    options.media_written_before_us = m_started_us;
    const auto skipped = [](const std::filesystem::path& file, const std::string& reason) {
        QM_LOG_WARNING("CATALOG_WRITER: " << file.string() << ": " << reason << "; leg skipped");
    };
    try {
        const ReindexCounts counts = reindex(*m_store, options, skipped);
        m_statistic.rows_written += counts.legs;
        m_catch_up = false;
        if (m_outage) {
            m_outage = false;
            QM_LOG_SYSTEM(
                "CATALOG_WRITER: the catalogue answers again, caught up with the storage: "
                << reindex_line(counts));
        }
        m_retry_ms = 0;
        return true;
    } catch (const CatalogError& failure) {
        fail(failure.what());
    }
    return false;
}

bool CatalogWriter::write(const std::deque<Work>& batch) {
    std::vector<CatalogRow> rows;
    std::vector<RemovedDirectory> removed;
    for (const Work& work : batch) {
        if (const auto* leg = std::get_if<LegSummary>(&work)) {
            rows.push_back(recorded_row(*leg));
        } else {
            removed.push_back(std::get<RemovedDirectory>(work));
        }
    }
    try {
        if (!rows.empty()) {
            m_store->upsert(rows);
            m_statistic.rows_written += rows.size();
        }
        if (!removed.empty()) {
            m_store->mark_removed_under(m_recorder, removed);
        }
        return true;
    } catch (const CatalogError& failure) {
        fail(failure.what());
    }
    return false;
}

void CatalogWriter::fail(const std::string& reason) {
    ++m_statistic.write_failures;
    // A connection that failed once is not trusted again: the next try opens a new one.
    m_store.reset();
    m_catch_up = true;
    if (!m_outage) {
        m_outage = true;
        QM_LOG_WARNING(
            "CATALOG_WRITER: the catalogue cannot be written, recording goes on and "
            "the catalogue catches up from the storage when it answers: "
            << reason);
    }
}

bool CatalogWriter::wait_to_retry() {
    m_retry_ms = m_retry_ms == 0 ? FIRST_RETRY_MS : std::min(m_retry_ms * 2, LAST_RETRY_MS);
    std::unique_lock lock(m_mutex);
    return !m_wake.wait_for(lock, std::chrono::milliseconds(m_retry_ms),
                            [this] { return m_stopping; });
}

}  // namespace qm::catalog
