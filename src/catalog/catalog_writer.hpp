#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "catalog/catalog_store.hpp"
#include "catalog/catalog_writer_statistic.hpp"
#include "catalog/leg_summary.hpp"
#include "core/thread.hpp"

// Keeps the recorder's catalogue in step with its storage, from a thread of its own. The media
// writer hands over each closed leg's summary, the storage cleanup each directory it removed; both
// only queue, under a lock held for a push, and never wait for the database. The thread writes
// what is queued in batches, one transaction each.
//
// The summaries on disk are the truth and the queue only saves reading them. Whenever the
// catalogue may have missed something (at start, after a failed write, after the queue was full)
// the thread catches up from the storage before it writes the queue again: the walk of `reindex`
// reading only the legs this recorder's rows miss, and marking removed the rows whose directory
// is gone (at the time of the catch-up). An archived leg stays archived through all of it: the
// archive holds it, and its directory may have been deleted by the archiver.
//
// The first failure to reach or write the catalogue logs one WARNING, and the thread then tries
// again after 1 s, 2 s, 4 s, up to 10 s between tries, dropping what it failed to write (the
// catch-up brings it back). When a catch-up succeeds again, one SYSTEM line says the catalogue
// answers. Recording never waits for any of it.
//
// Threads: built, described, started and stopped by the service's main thread. `leg_closed` is
// called by the media writer's thread, `directory_removed` by the storage manager's (or by the
// main thread before either runs); both may run at any time after construction, even before
// `start`, until `stop` returns. Everything else runs on the catalogue thread.

namespace qm::catalog {

class CatalogWriter : public Thread {
public:
    // The queue's length: several minutes of closed legs at the rates one recorder takes.
    static constexpr std::size_t QUEUE_CAPACITY = 8192;
    // Legs or removed directories per transaction.
    static constexpr std::size_t BATCH = 256;

    // Writes to the catalogue at `location` (see `open_catalog`), whose legs lie in `storage`.
    // `store` is the catalogue the main thread opened, or null when it could not: the thread then
    // opens it itself, as after an outage. REQUIRES: `statistic` outlives the writer.
    CatalogWriter(std::string location, std::filesystem::path storage,
                  std::unique_ptr<CatalogStore> store, CatalogWriterStatistic& statistic);
    ~CatalogWriter() override;

    CatalogWriter(const CatalogWriter&) = delete;
    CatalogWriter& operator=(const CatalogWriter&) = delete;

    // The recorder ("host:port") whose rows this writer keeps, and the time it started (a leg
    // with only a media file written since then is still being recorded). REQUIRES: the thread
    // does not run yet.
    void describe_recorder(std::string recorder, std::uint64_t started_us);

    // Queues a closed leg, or counts it as overflowed when the queue is full.
    void leg_closed(LegSummary summary);
    // Queues a directory (relative to the storage) the cleanup removed at `removed_at_us`.
    void directory_removed(std::string directory, std::uint64_t removed_at_us);

    void run() override;
    // Wakes the thread, which writes what is queued when the catalogue answers, and joins it.
    [[nodiscard]] int stop() override;

private:
    using Work = std::variant<LegSummary, RemovedDirectory>;

    void queue(Work work);
    // Up to BATCH queued elements; with `wait`, after waiting at most 1 s (but not at a stop) for
    // the first. A full queue since the last take asks for a catch-up.
    std::deque<Work> take_batch(bool wait);
    // Opens the catalogue when it is not open; false when it cannot.
    bool connect();
    // Writes the queue and walks the storage, when a catch-up is due; false when that failed.
    bool catch_up();
    // Writes the batch's legs, then marks its removed directories: a leg is handed over only
    // while its file is there, so none of them was closed after its directory went.
    bool write(const std::deque<Work>& batch);
    // The failure of an open, a catch-up or a write: counted, its WARNING when an outage begins.
    void fail(const std::string& reason);
    // Sleeps out the wait before the next try; false when a stop came.
    bool wait_to_retry();

    const std::string m_location;
    const std::filesystem::path m_storage;
    std::string m_recorder;
    std::uint64_t m_started_us = 0;
    CatalogWriterStatistic& m_statistic;

    // Catalogue thread only.
    std::unique_ptr<CatalogStore> m_store;
    bool m_outage = false;
    bool m_catch_up = true;
    std::uint64_t m_retry_ms = 0;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    // Under m_mutex.
    std::deque<Work> m_queue;
    bool m_overflowed = false;
    bool m_stopping = false;
};

}  // namespace qm::catalog
