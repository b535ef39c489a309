#include "recorder/service.hpp"

#include <netinet/in.h>
#include <sys/stat.h>

#include <memory>
#include <new>
#include <stdexcept>

#include "app/app_notify.hpp"
#include "build_version.hpp"
#include "catalog/open_catalog.hpp"
#include "conf/configuration.hpp"
#include "log/logger.hpp"
#include "media/media_packet_reader.hpp"
#include "net/net_socket.hpp"
#include "net/nft_port_rule.hpp"
#include "recorder/allowed_sources.hpp"
#include "recorder/receive_loop.hpp"
#include "stats/statistic_service.hpp"
#include "storage/storage_manager.hpp"
#include "utils/path.hpp"
#include "utils/time.hpp"
#include "writer/writing_manager.hpp"

namespace qm::recorder {
namespace {

// Datagrams drained from the socket beside a packet ring per call: a block's worth and more.
constexpr std::size_t DRAIN_BATCH = 1024;

// The mask becomes the process's umask instead of a mode handed to each mkdir and open: one call
// covers every directory and file the recorder creates from here on, on any thread, with no chmod
// after each creation. It runs after daemon mode's umask(0) (the configuration is loaded after the
// fork), so the mask wins there too, and before any thread starts. Unset, the umask the process
// has stays, as it always did. The metrics file, created later as well, follows the mask too.
void apply_storage_mode_mask(const Configuration& configuration) {
    if (configuration.storage_mode_mask) {
        ::umask(*configuration.storage_mode_mask);
    }
}

// Hands the report its settings and starts its thread; a report thread that cannot start
// leaves the recorder running without reports.
void start_statistics(const Configuration& configuration) {
    stats::StatisticService& statistics = stats::StatisticService::Instance;
    statistics.number = configuration.port;
    statistics.show_number = true;
    statistics.log_enabled = configuration.statistic_logging_enabled;
    statistics.transfer_enabled = configuration.statistic_transfer_enabled;
    statistics.transfer_host = configuration.statistic_transfer_host;
    statistics.transfer_port = configuration.statistic_transfer_port;
    statistics.metrics_file = configuration.metrics_file;
    const int started = statistics.start();
    if (started != 0) {
        QM_LOG_ERROR("SERVICE: failed to start statistic service, error: " << started);
    }
}

// Starts the catalogue's thread for the recorder `recorder` and has the media writer feed it. A
// thread that cannot start leaves the recorder running without its catalogue (the storage still
// has every leg's summary for a reindex) rather than refusing to record.
void start_catalog(catalog::CatalogWriter& catalog, writer::WritingManager& writing,
                   std::string recorder) {
    catalog.describe_recorder(std::move(recorder), utils::time::now_us());
    writing.catalogue_legs(catalog);
    const int started = catalog.start();
    if (started != 0) {
        QM_LOG_ERROR("SERVICE: failed to start the catalogue writer, error: " << started);
    }
}

// Hands every datagram whose sender `admit` allows to `reader` until a stop, through the ring
// when it is open, else through the socket as `configuration` says.
template <typename Admit>
void receive_admitted(const Configuration& configuration, net::Socket& socket,
                      net::PacketRing& ring, net::Socket::ReadBuffer& read_buffer,
                      media::PacketReader& reader, Admit&& admit) {
    // Blocks and batches wake the reader once for all their datagrams.
    const auto consume_quietly = [&reader](const std::uint8_t* data, std::uint64_t length) {
        reader.read_from(data, length, false);
    };
    const auto wake_reader = [&reader] { reader.wake_reader(); };
    if (ring.fd() != -1) {
        net::ReceiveBatch drain(DRAIN_BATCH, 0);
        receive_blocks_until_stopped(ring, socket, drain, consume_quietly, wake_reader, admit);
    } else if (configuration.receive_batch <= 1) {
        receive_until_stopped(
            socket, read_buffer,
            [&reader](const std::uint8_t* data, std::uint64_t length) {
                reader.read_from(data, length);
            },
            admit);
    } else {
        net::ReceiveBatch batch(configuration.receive_batch);
        receive_batches_until_stopped(socket, batch, configuration.receive_batch_delay,
                                      consume_quietly, wake_reader, admit);
    }
}

}  // namespace

Service::Service() {
    capabilities = CAPABILITY_DAEMON;
    module_name = "writer";
    service_name = "quillmar" + module_name;
    config_path = conf::default_directory + "/" + module_name + conf::default_conf_ext;
}

void Service::on_pre_start() {
    QM_LOG_SYSTEM("build version: \"" << build::VERSION << "\"");
}

bool Service::on_start() {
    // The life-cycle lines are SYSTEM lines: a threshold that hid errors as well is refused
    // outright, and nobody catches the refusal.
    if (configuration->log_level <= log::Level::SYSTEM) {
        throw std::invalid_argument("impossible to set log level stricter than 'error' level");
    }
    log::set_level(configuration->log_level);

    if (configuration->storage.empty()) {
        QM_LOG_ERROR("SERVICE: storage path must be specified");
        return false;
    }
    apply_storage_mode_mask(*configuration);
    if (!utils::path::check_or_create_directory(configuration->storage, false,
                                                configuration->directory_mode(),
                                                utils::path::create_policy::OPTIMISTIC)) {
        QM_LOG_ERROR("SERVICE: storage path is not a directory or failed to create");
        return false;
    }
    // With `storage_cleanup_spare_open_legs`, the writing manager tells the cleanup which minutes
    // its legs still write into. Also with `storage_max_age`: a leg started by a sender whose clock
    // is behind lands in a minute that is old already, and must not go while it is recorded.
    writer::OpenLegs legs;
    writer::OpenLegs* const open_legs =
        configuration->storage_cleanup_spare_open_legs || configuration->storage_max_age != 0
            ? &legs
            : nullptr;
    // One cleanup pass before any thread starts, then the report thread, then the cleanup
    // thread. A cleanup thread that cannot start leaves the recorder running without periodic
    // cleanup rather than refusing to record.
    if (!prepare_catalog()) {
        return false;
    }
    storage::StorageManager storage(configuration->storage, *configuration, open_legs);
    if (m_catalog) {
        storage.on_removed([&catalog = *m_catalog](std::string directory, std::uint64_t at_us) {
            catalog.directory_removed(std::move(directory), at_us);
        });
    }
    storage.cleanup();
    log_pending_signals();
    start_statistics(*configuration);
    const int storage_started = storage.start();
    if (storage_started != 0) {
        QM_LOG_ERROR("SERVICE: failed to start storage manager, error: " << storage_started);
    }
    log_pending_signals();

    // Value-initialised: the receive buffer starts zeroed.
    const auto read_buffer = std::make_unique<net::Socket::ReadBuffer>();
    net::Socket socket;
    net::PacketRing ring;
    net::NftPortRule rule;
    bool recorded = false;
    if (socket.open(configuration->port, INADDR_ANY)) {
        prepare_receiving(socket, ring, rule);
        recorded = record(socket, ring, *read_buffer, open_legs);
    }
    // Also when the socket could not be bound: no thread may log while the frame puts the
    // logger away. A failed join is logged by the thread's owner; there is nothing else to do.
    static_cast<void>(storage.stop());
    if (m_catalog) {
        static_cast<void>(m_catalog->stop());
        m_catalog.reset();
    }
    static_cast<void>(stats::StatisticService::Instance.stop());
    rule.remove();
    ring.close();
    socket.close();
    return recorded;
}

bool Service::prepare_catalog() {
    const std::string& location = configuration->catalog;
    if (location.empty()) {
        return true;
    }
    std::string error;
    std::unique_ptr<catalog::CatalogStore> store =
        catalog::open_catalog(location, configuration->storage, error);
    if (!store && !catalog::is_postgres_location(location)) {
        QM_LOG_ERROR("SERVICE: failed to open the catalogue: " << error);
        return false;
    }
    configuration->write_leg_summary = true;
    stats::StatisticService::Instance.catalog_metrics = true;
    m_catalog =
        std::make_unique<catalog::CatalogWriter>(location, configuration->storage, std::move(store),
                                                 stats::StatisticService::Instance.catalog);
    return true;
}

void Service::prepare_receiving(net::Socket& socket, net::PacketRing& ring,
                                net::NftPortRule& rule) {
    // With a ring the socket's buffer still holds its copies between two drains.
    const std::uint64_t granted = socket.set_receive_buffer(configuration->receive_buffer_size);
    if (configuration->receive_ring_size > 0 &&
        ring.open(socket.local_port(), configuration->receive_ring_size,
                  configuration->allowed_sources)) {
        if (configuration->receive_ring_nft) {
            // Without the rule the copies are drained: slower, not wrong.
            static_cast<void>(rule.add(socket.local_port(), configuration->allowed_sources));
        }
        stats::StatisticService::Instance.watch_ring_drops(ring);
        return;
    }
    stats::StatisticService::Instance.watch_kernel_drops(socket.fd(), granted);
}

void Service::receive(net::Socket& socket, net::PacketRing& ring,
                      net::Socket::ReadBuffer& read_buffer, media::PacketReader& reader) {
    const net::SourceFilter& filter = configuration->allowed_sources;
    if (filter.empty()) {
        receive_admitted(*configuration, socket, ring, read_buffer, reader, AnySource{});
        return;
    }
    receive_admitted(*configuration, socket, ring, read_buffer, reader,
                     AllowedSources(filter, stats::StatisticService::Instance.refused_sources));
}

bool Service::record(net::Socket& socket, net::PacketRing& ring,
                     net::Socket::ReadBuffer& read_buffer, writer::OpenLegs* open_legs) {
    // The report's records outlive the components that count into them.
    stats::StatisticService& statistics = stats::StatisticService::Instance;
    std::unique_ptr<writer::WritingManager> writing;
    try {
        writing = std::make_unique<writer::WritingManager>(*configuration, statistics.manager,
                                                           statistics.pool, statistics.writer);
    } catch (const std::bad_alloc&) {
        QM_LOG_ERROR("SERVICE: failed to allocate the media buffers");
        return false;
    }
    if (open_legs != nullptr) {
        writing->track_open_legs(*open_legs);
    }
    const std::string host = net::get_host_name();
    writing->describe_recorder(host, socket.local_port());
    if (m_catalog) {
        start_catalog(*m_catalog, *writing, host + ":" + std::to_string(socket.local_port()));
    }
    const int writing_started = writing->start();
    if (writing_started != 0) {
        QM_LOG_ERROR("SERVICE: failed to start writing manager, error: " << writing_started);
        return false;
    }
    auto reader = std::make_unique<media::PacketReader>(&statistics.packet_reader, *writing);
    const int started = reader->start();
    if (started != 0) {
        QM_LOG_ERROR("SERVICE: failed to start packets reader, error: " << started);
    } else {
        // The socket is bound and every thread runs: the recorder takes packets from here on.
        app::notify_service_manager("READY=1");
        receive(socket, ring, read_buffer, *reader);
        // A stop that came before the loop's first look at its flag, or after its last safe
        // point, is logged here: its lines come before those of the threads it stops.
        log_pending_signals();
        app::notify_service_manager("STOPPING=1");
    }
    // The reader goes first, so that nothing reaches the writing manager while the media writer
    // drains what the sessions handed it. A failed join is logged by the reader itself; the
    // pipeline is taken down either way.
    static_cast<void>(reader->stop());
    reader.reset();
    if (configuration->flush_open_sessions_on_stop) {
        const std::size_t flushed = writing->flush_open_sessions();
        QM_LOG_SYSTEM("SERVICE: " << flushed << " open sessions handed to the writer at stop");
    }
    static_cast<void>(writing->stop());
    writing.reset();
    return started == 0;
}

}  // namespace qm::recorder
