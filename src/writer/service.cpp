#include "writer/service.hpp"

#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>

#include <memory>
#include <stdexcept>

#include "build_version.hpp"
#include "conf/configuration.hpp"
#include "core/thread.hpp"
#include "log/logger.hpp"
#include "media/media_packet_reader.hpp"
#include "media/media_session_manager.hpp"
#include "net/net_socket.hpp"
#include "utils/path.hpp"

namespace qm::writer {
namespace {

constexpr mode_t STORAGE_MODE = 0755;

// Starts `thread` with every signal blocked in it. The kernel then delivers the process's signals
// to the main thread only, and a stop signal always interrupts its blocking read; a signal taken
// by a worker would leave the main thread waiting for the next datagram.
int start_with_signals_blocked(Thread& thread) {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const int result = thread.start();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return result;
}

// Hands every datagram to the packet reader until a stop is requested. A signal interrupts the
// read (it returns 0), so the flag is looked at again at once.
void receive_until_stopped(net::Socket& socket, net::Socket::ReadBuffer& buffer,
                           media::PacketReader& reader) {
    while (app::ServiceBase::m_signal_stop.load(std::memory_order_relaxed) == 0) {
        const std::int64_t length = socket.read(buffer);
        if (length > 0) {
            reader.read_from(buffer.data, static_cast<std::uint64_t>(length));
        }
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
    if (!utils::path::check_or_create_directory(configuration->storage, false, STORAGE_MODE,
                                                utils::path::create_policy::OPTIMISTIC)) {
        QM_LOG_ERROR("SERVICE: storage path is not a directory or failed to create");
        return false;
    }
    // The storage manager's first cleanup pass, the statistics thread and the storage manager's
    // thread start here, in this order, once they exist.

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
    const int started = start_with_signals_blocked(*reader);
    if (started != 0) {
        QM_LOG_ERROR("SERVICE: failed to start packets reader, error: " << started);
    } else {
        receive_until_stopped(socket, *read_buffer, *reader);
    }

    reader->stop();
    reader.reset();
    sessions.reset();
    socket.close();
    return started == 0;
}

}  // namespace qm::writer
