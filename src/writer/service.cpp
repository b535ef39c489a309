#include "writer/service.hpp"

#include <netinet/in.h>

#include <memory>
#include <stdexcept>

#include "build_version.hpp"
#include "conf/configuration.hpp"
#include "log/logger.hpp"
#include "media/media_packet_reader.hpp"
#include "media/media_session_manager.hpp"
#include "net/net_socket.hpp"
#include "utils/path.hpp"
#include "writer/receive_loop.hpp"

namespace qm::writer {
namespace {

constexpr mode_t STORAGE_MODE = 0755;

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
    if (!utils::path::check_or_create_directory(configuration->storage, false, STORAGE_MODE,
                                                utils::path::create_policy::OPTIMISTIC)) {
        QM_LOG_ERROR("SERVICE: storage path is not a directory or failed to create");
        return false;
    }
    // The storage manager's first cleanup pass, the statistics thread and the storage manager's
    // thread start here, in this order, once they exist.
    log_pending_signals();

    // Value-initialised: the receive buffer starts zeroed.
    const auto read_buffer = std::make_unique<net::Socket::ReadBuffer>();
    net::Socket socket;
    if (!socket.open(configuration->port, INADDR_ANY)) {
        socket.close();
        return false;
    }

    // The records outlive the components that count into them.
    media::PacketReaderStatistic reader_statistic{};
    media::SessionManagerStatistic session_statistic{};
    auto sessions = std::make_unique<media::SessionManager>(&session_statistic);
    auto reader = std::make_unique<media::PacketReader>(&reader_statistic, *sessions);
    const int started = reader->start();
    if (started != 0) {
        QM_LOG_ERROR("SERVICE: failed to start packets reader, error: " << started);
    } else {
        receive_until_stopped(socket, *read_buffer,
                              [&reader](const std::uint8_t* data, std::uint64_t length) {
                                  reader->read_from(data, length);
                              });
    }

    reader->stop();
    reader.reset();
    sessions.reset();
    socket.close();
    return started == 0;
}

}  // namespace qm::writer
