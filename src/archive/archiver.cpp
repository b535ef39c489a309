#include "archive/archiver.hpp"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

#include "catalog/open_catalog.hpp"
#include "log/logger.hpp"
#include "utils/path_inside.hpp"
#include "utils/time.hpp"

namespace qm::archive {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t FIRST_RETRY_MS = 1000;
constexpr std::uint64_t LAST_RETRY_MS = 10000;
constexpr const char* MEDIA_FILE = "media.qm";
constexpr const char* SUMMARY_FILE = "leg.json";

std::uint64_t now_us() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

}  // namespace

Archiver::Archiver(std::string location, ArchiveSettings settings, std::unique_ptr<S3Client> client,
                   ArchiveStatistic& statistic)
    : m_location(std::move(location)),
      m_settings(std::move(settings)),
      m_statistic(statistic),
      m_client(std::move(client)) {
    set_name("qm-archive");
    for (const RecorderStorage& recorder : m_settings.recorders) {
        m_recorder_names.push_back(recorder.recorder);
    }
}

Archiver::~Archiver() {
    static_cast<void>(stop());
}

void Archiver::run() {
    QM_LOG_THREAD_STARTED("ARCHIVE");
    while (is_running()) {
        if (connect() && work()) {
            continue;
        }
        if (failed() || !sleep_for(next_wait_ms())) {
            break;
        }
    }
    release_claims();
}

bool Archiver::work() {
    try {
        return round();
    } catch (const catalog::CatalogError& failure) {
        fail_catalogue(failure.what());
    } catch (const S3Error& refusal) {
        QM_LOG_ERROR("ARCHIVE: the store refuses the archive's requests to bucket "
                     << m_client->endpoint().bucket() << ", the archive stops: " << refusal.what());
        m_failed.store(true, std::memory_order_relaxed);
    }
    return false;
}

std::uint64_t Archiver::next_wait_ms() {
    if (!m_outage) {
        return static_cast<std::uint64_t>(m_settings.idle_wait.count());
    }
    m_retry_ms = m_retry_ms == 0 ? FIRST_RETRY_MS : std::min(m_retry_ms * 2, LAST_RETRY_MS);
    return m_retry_ms;
}

int Archiver::stop() {
    if (!is_running()) {
        return join();
    }
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    request_stop();
    m_wake.notify_all();
    return QM_LOG_THREAD_STOPPED("ARCHIVE", join());
}

bool Archiver::connect() {
    if (m_store) {
        return true;
    }
    std::string error;
    m_store = catalog::open_catalog(m_location, m_settings.storage, error);
    if (!m_store) {
        fail(error);
        return false;
    }
    try {
        m_store->release_all(m_settings.name);
    } catch (const catalog::CatalogError& failure) {
        fail_catalogue(failure.what());
        return false;
    }
    return true;
}

bool Archiver::round() {
    const std::vector<catalog::CatalogRow> legs = m_store->claim(
        m_settings.name, now_us(), static_cast<std::uint64_t>(m_settings.lease.count()) * 1000000,
        m_settings.batch, m_recorder_names);
    update_backlog();
    if (legs.empty()) {
        succeeded();
        return false;
    }
    for (const catalog::CatalogRow& row : legs) {
        // The legs a stop leaves are given up at the end of `run`.
        if (!is_running()) {
            return true;
        }
        if (archive(row) == Outcome::RETRY) {
            // This leg and the batch's others, so that any archiver may take them at once.
            m_store->release_all(m_settings.name);
            return false;
        }
    }
    return true;
}

Archiver::Outcome Archiver::archive(const catalog::CatalogRow& row) {
    const catalog::LegKey key = catalog::key_of(row);
    std::uint64_t bytes = 0;
    std::string url;
    try {
        url = upload(row, bytes);
    } catch (const S3Error& failure) {
        if (!failure.retryable()) {
            throw;
        }
        fail(failure.what());
        return Outcome::RETRY;
    } catch (const std::runtime_error& unreadable) {
        // The leg's files are not there to read (the cleanup took them, or a path that is not
        // the storage's): the claim is left to run out, so the leg is looked at again only then.
        ++m_statistic.failures;
        QM_LOG_WARNING("ARCHIVE: leg " << row.summary.uuid << " of " << key.recorder
                                       << " not archived: " << unreadable.what());
        return Outcome::SKIPPED;
    }
    if (!m_store->mark_archived(m_settings.name, key, url, now_us())) {
        QM_LOG_WARNING("ARCHIVE: leg " << row.summary.uuid << " of " << key.recorder
                                       << " was taken by another archiver while it was uploaded");
        return Outcome::SKIPPED;
    }
    m_statistic.legs_uploaded.fetch_add(1, std::memory_order_relaxed);
    m_statistic.bytes_uploaded.fetch_add(bytes, std::memory_order_relaxed);
    QM_LOG_INFO("ARCHIVE: leg " << row.summary.uuid << " of " << key.recorder << " archived at "
                                << url << " (" << bytes << " bytes)");
    succeeded();
    if (m_settings.delete_local) {
        std::error_code error;
        fs::remove_all(storage_of(row) / row.summary.path, error);
        if (error) {
            QM_LOG_WARNING("ARCHIVE: leg " << row.summary.uuid << " archived, but its directory "
                                           << row.summary.path << " stays: " << error.message());
        }
    }
    return Outcome::ARCHIVED;
}

std::string Archiver::upload(const catalog::CatalogRow& row, std::uint64_t& bytes) {
    const std::optional<fs::path> directory =
        utils::path_inside(fs::canonical(storage_of(row)), row.summary.path);
    if (!directory) {
        throw std::runtime_error("its path " + row.summary.path + " is not inside the storage");
    }
    const std::string prefix = m_settings.prefix + row.summary.path + "/";
    for (const char* name : {MEDIA_FILE, SUMMARY_FILE}) {
        const fs::path file = *directory / name;
        std::error_code error;
        if (name == SUMMARY_FILE && !fs::exists(file, error)) {
            continue;
        }
        const FileDigest digest = m_client->put_object(prefix + name, file);
        m_client->verify_object(prefix + name, digest);
        bytes += digest.size;
    }
    return m_client->endpoint().object_name(prefix);
}

const fs::path& Archiver::storage_of(const catalog::CatalogRow& row) const {
    const std::string recorder = catalog::recorder_name(row.summary);
    for (const RecorderStorage& candidate : m_settings.recorders) {
        if (candidate.recorder == recorder) {
            return candidate.storage;
        }
    }
    return m_settings.storage;
}

void Archiver::release_claims() {
    try {
        if (m_store) {
            m_store->release_all(m_settings.name);
        }
    } catch (const catalog::CatalogError&) {
        // The claims run out by themselves, and the next start frees them.
    }
}

void Archiver::update_backlog() {
    const catalog::ArchiveBacklog backlog = m_store->backlog();
    m_statistic.backlog_legs.store(backlog.legs, std::memory_order_relaxed);
    m_statistic.backlog_bytes.store(backlog.bytes, std::memory_order_relaxed);
}

void Archiver::fail(const std::string& reason) {
    m_statistic.failures.fetch_add(1, std::memory_order_relaxed);
    if (!m_outage) {
        m_outage = true;
        QM_LOG_WARNING(
            "ARCHIVE: the catalogue or the store cannot be reached, legs wait and are "
            "archived when both answer: "
            << reason);
    }
}

void Archiver::fail_catalogue(const std::string& reason) {
    m_store.reset();
    fail(reason);
}

void Archiver::succeeded() {
    m_retry_ms = 0;
    if (m_outage) {
        m_outage = false;
        QM_LOG_SYSTEM("ARCHIVE: the catalogue and the store answer again, archiving goes on");
    }
}

bool Archiver::sleep_for(std::uint64_t milliseconds) {
    std::unique_lock lock(m_mutex);
    return !m_wake.wait_for(lock, std::chrono::milliseconds(milliseconds),
                            [this] { return m_stopping; });
}

}  // namespace qm::archive
