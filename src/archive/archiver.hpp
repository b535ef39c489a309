#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "archive/archive_settings.hpp"
#include "archive/archive_statistic.hpp"
#include "archive/s3_client.hpp"
#include "catalog/catalog_row.hpp"
#include "catalog/catalog_store.hpp"
#include "core/thread.hpp"

// Takes recorded legs from the catalogue to an S3-compatible store, from a thread of its own.
//
// In a round the archiver claims a batch of legs (other archivers on the same catalogue never get
// them while the claim holds), and for each uploads `media.qm` and, when there is one, `leg.json`
// under PREFIX + the leg's path, checks each object's size and MD5 against the local file, and only
// then marks the leg archived with its URL, while it still holds the claim. With `delete_local`
// the leg's directory goes after that. An upload cut short (a stop, a crash) leaves no object, as
// a PUT is whole or nothing, and the leg stays recorded for the next try.
//
// An unreachable catalogue or store, a 5xx or a request to slow down is an outage: one WARNING
// when it begins, tries again after 1 s, 2 s, 4 s, up to 10 s, and one SYSTEM line when the work
// goes on. A failed leg's claim is given up so that any archiver may take it. A refusal that
// repeating cannot cure (a wrong secret, a missing bucket) is one ERROR naming the bucket and the
// store's code, and ends the archiver: `failed()` then says so.
//
// Threads: built, started and stopped by one owning thread; the counters in the statistic are
// read by any.

namespace qm::archive {

class Archiver : public Thread {
public:
    // Archives the legs of the catalogue at `location` into `client`'s bucket.
    // REQUIRES: `statistic` outlives the archiver.
    Archiver(std::string location, ArchiveSettings settings, std::unique_ptr<S3Client> client,
             ArchiveStatistic& statistic);
    ~Archiver() override;

    Archiver(const Archiver&) = delete;
    Archiver& operator=(const Archiver&) = delete;

    void run() override;
    // Lets the leg being uploaded finish, and joins the thread.
    [[nodiscard]] int stop() override;

    // True once the thread has ended by itself, after a refusal; any thread.
    bool failed() const { return m_failed.load(std::memory_order_relaxed); }

private:
    enum class Outcome { ARCHIVED, SKIPPED, RETRY };

    // Opens the catalogue when it is not open and frees the claims a killed run left; false when
    // it cannot.
    bool connect();
    // A round, with its failures handled; false when a wait is due (or the archiver failed).
    bool work();
    // Claims a batch and archives it; false when there was nothing to do or a try failed.
    bool round();
    // How long to wait before the next round: the idle wait, or the back-off in an outage.
    std::uint64_t next_wait_ms();
    Outcome archive(const catalog::CatalogRow& row);
    // Uploads and verifies the leg's files; returns its URL and adds the bytes to `bytes`.
    std::string upload(const catalog::CatalogRow& row, std::uint64_t& bytes);
    void update_backlog();
    // The storage the leg's recorder records into.
    const std::filesystem::path& storage_of(const catalog::CatalogRow& row) const;
    // Gives up the claims a stop left unused, when the catalogue answers.
    void release_claims();
    // A failure of the store or the catalogue: counted, its WARNING when an outage begins.
    void fail(const std::string& reason);
    // A failure of the catalogue: as `fail`, and the connection is not trusted again.
    void fail_catalogue(const std::string& reason);
    // Work went through again: the SYSTEM line when an outage ends.
    void succeeded();
    // Sleeps `milliseconds`, or less at a stop; false when a stop came.
    bool sleep_for(std::uint64_t milliseconds);

    const std::string m_location;
    const ArchiveSettings m_settings;
    // The names in `m_settings.recorders`, as the catalogue's claim takes them.
    std::vector<std::string> m_recorder_names;
    ArchiveStatistic& m_statistic;

    // Archiver thread only.
    std::unique_ptr<S3Client> m_client;
    std::unique_ptr<catalog::CatalogStore> m_store;
    bool m_outage = false;
    std::uint64_t m_retry_ms = 0;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    // Under m_mutex.
    bool m_stopping = false;
    // Set by the thread as it ends after a refusal. Relaxed: the flag is the whole message, the
    // owner reads nothing else of the thread's until `stop` joins it.
    std::atomic<bool> m_failed{false};
};

}  // namespace qm::archive
