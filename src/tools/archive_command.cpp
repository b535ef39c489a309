#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "archive/archive_metrics.hpp"
#include "archive/archiver.hpp"
#include "archive/s3_client.hpp"
#include "log/logger.hpp"
#include "log/stdlog.hpp"
#include "tools/recorder_catalog.hpp"
#include "tools/stop_signals.hpp"
#include "tools/store_options.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

// How often the metrics file is rewritten, as the recorder's is.
constexpr auto METRICS_PERIOD = std::chrono::seconds(5);

struct ArchiveOptions {
    std::string config = default_recorder_config();
    CatalogPlace place;
    StoreOptions store;
    std::string bucket;
    std::string prefix;
    std::string name;
    std::vector<std::string> recorders;
    std::optional<std::string> metrics;
    unsigned lease_seconds = 300;
    bool delete_local = false;
};

std::string host_name() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "localhost";
    }
    return name;
}

// The store's client from the options and the environment. THROWS: CredentialsError,
// S3EndpointError.
std::unique_ptr<archive::S3Client> make_client(const ArchiveOptions& options) {
    archive::StoreAccess access = *store_access(options.store);
    return std::make_unique<archive::S3Client>(
        archive::S3Endpoint(access.endpoint, options.bucket, access.region, access.addressing),
        std::move(access.credentials));
}

// The log lines go to standard error, as the recorder's do in the foreground, for the journal.
class StderrLog {
public:
    StderrLog() { log::Logger::m_instance.write = &log::Stdlog::write; }
    ~StderrLog() { log::Logger::m_instance.write = &log::LoggerImpl::dummy_write; }
    StderrLog(const StderrLog&) = delete;
    StderrLog& operator=(const StderrLog&) = delete;
};

void write_metrics(const ArchiveOptions& options, const archive::ArchiveStatistic& statistic) {
    std::string error;
    if (options.metrics && !archive::write_metrics(*options.metrics, statistic, error)) {
        QM_LOG_WARNING("ARCHIVE: the metrics file is not written: " << error);
    }
}

// Waits for SIGINT or SIGTERM, rewriting the metrics file meanwhile; returns early when the
// archiver ended by itself.
void wait_for_stop(const sigset_t& signals, const ArchiveOptions& options,
                   const archive::Archiver& archiver, const archive::ArchiveStatistic& statistic) {
    auto next_metrics = std::chrono::steady_clock::now();
    const timespec tick{0, 200'000'000};
    while (!archiver.failed()) {
        if (std::chrono::steady_clock::now() >= next_metrics) {
            write_metrics(options, statistic);
            next_metrics += METRICS_PERIOD;
        }
        if (sigtimedwait(&signals, nullptr, &tick) > 0) {
            return;
        }
    }
}

int run_archive(ArchiveOptions options) {
    std::string error;
    if (options.place.catalog.empty() &&
        !fill_from_recorder_config(options.config, options.place, error)) {
        std::cerr << "quillmar archive: " << error << std::endl;
        return 2;
    }
    std::unique_ptr<archive::S3Client> client;
    try {
        client = make_client(options);
    } catch (const std::exception& refused) {
        std::cerr << "quillmar archive: " << refused.what() << std::endl;
        return 2;
    }
    archive::ArchiveSettings settings;
    settings.name = options.name.empty() ? host_name() : options.name;
    settings.storage = options.place.storage.empty() ? "." : options.place.storage;
    for (const std::string& recorder : options.recorders) {
        const std::size_t equals = recorder.find('=');
        settings.recorders.push_back(
            {recorder.substr(0, equals), equals == std::string::npos
                                             ? settings.storage
                                             : std::filesystem::path(recorder.substr(equals + 1))});
    }
    settings.prefix = options.prefix;
    settings.delete_local = options.delete_local;
    settings.lease = std::chrono::seconds(options.lease_seconds);

    const sigset_t signals = block_stop_signals();
    const StderrLog log;
    archive::ArchiveStatistic statistic;
    archive::Archiver archiver(options.place.catalog, settings, std::move(client), statistic);
    if (archiver.start() != 0) {
        std::cerr << "quillmar archive: cannot start the archive's thread" << std::endl;
        return 2;
    }
    wait_for_stop(signals, options, archiver, statistic);
    static_cast<void>(archiver.stop());
    write_metrics(options, statistic);
    return archiver.failed() ? 1 : 0;
}

}  // namespace

void add_archive_command(CLI::App& app, int& status) {
    auto options = std::make_shared<ArchiveOptions>();
    CLI::App* command = app.add_subcommand(
        "archive", "upload closed legs from the catalogue to S3-compatible object storage");
    add_catalog_place_options(*command, options->place, options->config,
                              "the recordings' root, the legs' paths are relative to "
                              "(default: the storage key of --config)");
    add_store_options(*command, options->store, "the store, http(s)://HOST[:PORT]")->required();
    command->add_option("--bucket", options->bucket, "the bucket the legs go into")->required();
    command->add_option("--prefix", options->prefix,
                        "prepended to each leg's path in the bucket (\"calls/\")");
    command->add_option("--name", options->name,
                        "this archiver's name in the catalogue's claims (default: the host name)");
    command->add_option("--recorder", options->recorders,
                        "take only this recorder's legs, HOST:PORT, or HOST:PORT=STORAGE when it "
                        "records into another storage than --storage; repeatable");
    command->add_option("--metrics", options->metrics,
                        "rewrite this file with the archive's counters every 5 s");
    command
        ->add_option("--lease", options->lease_seconds,
                     "seconds a claim holds before another archiver may take the leg")
        ->capture_default_str()
        ->check(CLI::Range(10U, 86400U));
    command->add_flag("--delete-local", options->delete_local,
                      "remove a leg's directory once its upload is verified");
    command->callback([options, &status] { status = run_archive(*options); });
}

}  // namespace qm::tools
