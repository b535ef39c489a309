#include "app/app_service.hpp"

#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "app/app_daemon.hpp"
#include "log/logger.hpp"
#include "log/stdlog.hpp"
#include "log/syslog.hpp"
#include "utils/path.hpp"

namespace qm::app {
namespace {

// The handler can only touch lock-free atomics.
static_assert(std::atomic<std::int32_t>::is_always_lock_free);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<int>::is_always_lock_free);

struct OptionEntry {
    std::string_view name;
    std::string_view short_name;  // empty when the option has none
    bool takes_value;
    ServiceBase::Option option;
};

// Compared in this order.
constexpr OptionEntry OPTIONS[] = {
    {"--help", "-h", false, ServiceBase::Option::HELP},
    {"--daemon", "-d", false, ServiceBase::Option::DAEMON},
    {"--config", "-c", true, ServiceBase::Option::CONFIG},
    {"--pid-file", "", true, ServiceBase::Option::PID_FILE},
    {"--pid-file-default", "", false, ServiceBase::Option::PID_FILE_DEFAULT},
    {"--args", "", true, ServiceBase::Option::ARGS},
};

const OptionEntry* find_option(const std::string& argument) {
    for (const OptionEntry& entry : OPTIONS) {
        if (argument == entry.name || (!entry.short_name.empty() && argument == entry.short_name)) {
            return &entry;
        }
    }
    return nullptr;
}

bool is_daemon_option(const std::string& argument) {
    const OptionEntry* entry = find_option(argument);
    return entry != nullptr && entry->option == ServiceBase::Option::DAEMON;
}

// Reused for every subscription.
struct sigaction signalling;

// The signals whose handler is installed, in installation order.
constexpr int SUBSCRIBED_SIGNALS[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2};

bool is_stop_signal(int signal) {
    return signal == SIGINT || signal == SIGQUIT || signal == SIGTERM;
}

// How many times each signal has been received and not yet logged, by signal number. Counting
// rather than queueing loses nothing, however many signals arrive between two safe points, and
// needs no slot that a nested handler could race for. Relaxed: a count publishes no other data.
std::array<std::atomic<std::uint32_t>, NSIG> pending_signals;

// The eventfd the handler rings; -1 until the first subscription. Relaxed: it is written once,
// before any handler is installed, and the descriptor carries no data with it.
std::atomic<int> doorbell{-1};

void ring_doorbell() {
    const int fd = doorbell.load(std::memory_order_relaxed);
    if (fd >= 0) {
        const std::uint64_t one = 1;
        // Non-blocking: a counter that cannot grow is rung already.
        [[maybe_unused]] const ssize_t written = ::write(fd, &one, sizeof one);
    }
}

void empty_doorbell() {
    const int fd = doorbell.load(std::memory_order_relaxed);
    if (fd >= 0) {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t read = ::read(fd, &count, sizeof count);
    }
}

// The lines that the arrival of one `signal` stands for.
void log_signal(int signal) {
    QM_LOG_SYSTEM("SERVICE: signal " << signal << " has been received");
    switch (signal) {
        case SIGHUP:
            QM_LOG_SYSTEM("SERVICE: update has been requested");
            break;
        case SIGINT:
        case SIGQUIT:
        case SIGTERM:
            QM_LOG_SYSTEM("SERVICE: application stop has been requested");
            break;
        case SIGUSR1:
            QM_LOG_SYSTEM("SERVICE: user action #1 has been requested");
            break;
        case SIGUSR2:
            QM_LOG_SYSTEM("SERVICE: user action #2 has been requested");
            break;
        case SIGPIPE:
            QM_LOG_WARNING("SERVICE: signal SIGPIPE has been ignored");
            break;
        default:
            break;
    }
}

// Logs every pending arrival of the signals for which `select` holds, in signal-number order.
template <typename Select>
void log_pending(Select select) {
    for (int signal = 1; signal < NSIG; ++signal) {
        if (!select(signal)) {
            continue;
        }
        const std::uint32_t count = pending_signals[signal].exchange(0, std::memory_order_relaxed);
        for (std::uint32_t i = 0; i < count; ++i) {
            log_signal(signal);
        }
    }
}

// Installs `action` for `signal`; a failure is logged, as the frame logs every failed system call.
[[nodiscard]] bool install(int signal, const struct sigaction& action) {
    if (::sigaction(signal, &action, nullptr) != 0) {
        const int error = errno;
        QM_LOG_ERROR("SERVICE: failed to subscribe to signal " << signal << "; error [" << error
                                                               << "]: " << std::strerror(error));
        return false;
    }
    return true;
}

// Clears a flag before the handlers that set it are installed; the fence keeps the clearing
// ahead of the installation.
template <typename T>
void clear_flag(std::atomic<T>& flag) {
    flag.store(T{}, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

}  // namespace

std::atomic<std::int32_t> ServiceBase::m_signal_stop{0};
std::atomic<bool> ServiceBase::m_signal_update{false};
std::atomic<bool> ServiceBase::m_signal_user1{false};
std::atomic<bool> ServiceBase::m_signal_user2{false};

int ServiceBase::start(int argc, char** argv) {
    bool idle = false;
    if (!running.compare_exchange_strong(idle, true)) {
        return STATUS_ALREADY_RUNNING;
    }
    Arguments args = pre_parse_args(argc, argv);
    on_logger_open();
    const int parsed = parse_args(args);
    if (parsed == PARSE_HELP) {
        help();
        return STATUS_OK;
    }
    if (parsed != PARSE_CONTINUE) {
        return STATUS_FAILURE;
    }
    log_start_up(argc, argv);
    on_pre_start();
    if (supports_daemon_mode() && daemon_mode) {
        switch_to_daemon();
    }
    if (!signals_subscribe()) {
        return finish(STATUS_FAILURE);
    }

    const pid_t thread_id = ::gettid();
    QM_LOG_SYSTEM("SERVICE: [" << service_name << "] main thread [" << thread_id << "] started");
    int status = STATUS_FAILURE;
    const bool loaded = do_start();
    log_pending_signals();
    if (loaded) {
        status = on_start() ? STATUS_OK : STATUS_FAILURE;
    }
    log_pending_signals();
    QM_LOG_SYSTEM("SERVICE: [" << service_name << "] main thread [" << thread_id << "] stopped");
    return finish(status);
}

int ServiceBase::finish(int status) {
    on_logger_close();
    running.store(false, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return status;
}

ServiceBase::Arguments ServiceBase::pre_parse_args(int argc, char** argv) {
    exec_path = utils::path::get_absolute_path(argv[0]);
    Arguments kept;
    kept.reserve(argc > 1 ? static_cast<std::size_t>(argc - 1) : 0);
    int remaining = argc - 1;
    char** next = argv + 1;
    while (remaining > 0) {
        const std::string argument = *next;
        --remaining;
        ++next;
        if (is_daemon_option(argument)) {
            if (supports_daemon_mode()) {
                daemon_mode = true;
            }
        } else if (pre_parse_arg(argument, remaining, next)) {
            continue;
        }
        kept.push_back(argument);
    }
    return kept;
}

int ServiceBase::parse_args(Arguments& args) {
    for (auto current = args.begin(); current != args.end(); ++current) {
        const OptionEntry* entry = find_option(*current);
        int result = PARSE_CONTINUE;
        if (entry == nullptr) {
            result = parse_arg(current, args.end());
        } else if (!entry->takes_value) {
            result = apply_option(entry->option, *current, {});
        } else if (current + 1 == args.end()) {
            QM_LOG_ERROR("SERVICE: value if not specified for option [" << *current << "]");
            result = PARSE_MISSING_VALUE;
        } else {
            const std::string& typed = *current;
            ++current;
            result = apply_option(entry->option, typed, *current);
        }
        if (result != PARSE_CONTINUE) {
            return result;
        }
    }
    return PARSE_CONTINUE;
}

int ServiceBase::apply_option(Option option, const std::string& typed, const std::string& value) {
    switch (option) {
        case Option::HELP:
            return PARSE_HELP;
        case Option::DAEMON:
            // `daemon_mode` was already set by `pre_parse_args`.
            if (!supports_daemon_mode()) {
                QM_LOG_WARNING("SERVICE: daemon mode is not supported, ignoring option [" << typed
                                                                                          << "]");
            }
            break;
        case Option::CONFIG:
            config_path = utils::path::get_absolute_path(value);
            break;
        case Option::PID_FILE:
            pid_file = utils::path::get_absolute_path(value);
            break;
        case Option::PID_FILE_DEFAULT:
            pid_file = exec_path + ".pid";
            break;
        case Option::ARGS:
            push_config_args(value, false);
            break;
    }
    return PARSE_CONTINUE;
}

void ServiceBase::push_config_args(const std::string& value, bool append) {
    if (value.empty()) {
        return;
    }
    if (config_args.empty()) {
        config_args = value;
    } else if (append) {
        config_args += "," + value;
    } else {
        config_args = value + "," + config_args;
    }
}

int ServiceBase::parse_arg(ArgumentIterator&, ArgumentIterator) {
    return PARSE_UNKNOWN;
}

bool ServiceBase::pre_parse_arg(const std::string&, int&, char**&) {
    return false;
}

void ServiceBase::on_logger_open() {
    log::LoggerImpl& logger = log::Logger::m_instance;
    logger.context = nullptr;
    if (daemon_mode) {
        // `service_name` outlives the connection: openlog keeps the pointer.
        ::openlog(service_name.c_str(), LOG_PID | LOG_CONS | LOG_NDELAY, LOG_DAEMON);
        logger.close = &log::Syslog::close;
        logger.write = &log::Syslog::write;
    } else {
        logger.close = nullptr;
        logger.write = &log::Stdlog::write;
    }
}

void ServiceBase::on_logger_close() {
    log::LoggerImpl& logger = log::Logger::m_instance;
    if (logger.close != nullptr) {
        logger.close(logger.context);
        logger.close = nullptr;
    }
    logger.context = nullptr;
    logger.write = &log::LoggerImpl::dummy_write;
}

void ServiceBase::log_start_up(int argc, char** argv) const {
    if (!pid_file.empty()) {
        QM_LOG_SYSTEM("SERVICE:  pid file: " << pid_file);
    }
    QM_LOG_SYSTEM("SERVICE: exec path: " << exec_path);
    if (argc > 1) {
        log::SystemMessage line;
        line << "SERVICE: exec args:";
        for (int i = 1; i < argc; ++i) {
            line << " [" << argv[i] << "]";
        }
        log::emit(__FILE_NAME__, __LINE__, line);
    }
}

void ServiceBase::switch_to_daemon() {
    DaemonModeArgs args;
    args.pid_file = pid_file;
    args.log_file = log::default_directory + "/" + module_name + "_daemon.log";
    args.on_child_start = [this] {
        daemonized = true;
        on_logger_open();
    };
    args.on_failure = [this] { on_logger_close(); };
    args.on_parent_exit = [this] { on_logger_close(); };
    switch_to_daemon_mode(std::move(args));
}

bool ServiceBase::signals_subscribe() {
    clear_flag(m_signal_stop);
    clear_flag(m_signal_update);
    clear_flag(m_signal_user1);
    clear_flag(m_signal_user2);
    for (std::atomic<std::uint32_t>& count : pending_signals) {
        count.store(0, std::memory_order_relaxed);
    }
    if (doorbell.load(std::memory_order_relaxed) < 0) {
        const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (fd < 0) {
            const int error = errno;
            QM_LOG_ERROR("SERVICE: failed to create the signal doorbell; error ["
                         << error << "]: " << std::strerror(error));
            return false;
        }
        doorbell.store(fd, std::memory_order_relaxed);
    }
    empty_doorbell();
    struct sigaction ignoring {};
    ignoring.sa_handler = SIG_IGN;
    sigemptyset(&ignoring.sa_mask);
    if (!install(SIGPIPE, ignoring)) {
        return false;
    }
    std::memset(&signalling, 0, sizeof signalling);
    signalling.sa_sigaction = &signals_handler;
    signalling.sa_flags = SA_SIGINFO;  // and no SA_RESTART: a signal must interrupt blocking calls
    sigemptyset(&signalling.sa_mask);
    for (const int signal : SUBSCRIBED_SIGNALS) {
        if (!install(signal, signalling)) {
            return false;
        }
    }
    return true;
}

void ServiceBase::signals_handler(int signal, siginfo_t*, void*) {
    const int saved_errno = errno;
    if (signal > 0 && signal < NSIG) {
        pending_signals[signal].fetch_add(1, std::memory_order_relaxed);
    }
    switch (signal) {
        case SIGHUP:
            m_signal_update.store(true, std::memory_order_relaxed);
            break;
        case SIGINT:
        case SIGQUIT:
        case SIGTERM:
            m_signal_stop.store(1, std::memory_order_relaxed);
            break;
        case SIGUSR1:
            m_signal_user1.store(true, std::memory_order_relaxed);
            break;
        case SIGUSR2:
            m_signal_user2.store(true, std::memory_order_relaxed);
            break;
        default:
            break;
    }
    ring_doorbell();
    errno = saved_errno;
}

void ServiceBase::log_pending_signals() {
    empty_doorbell();
    // The stop lines come last: they announce what the service does next.
    log_pending([](int signal) { return !is_stop_signal(signal); });
    log_pending(is_stop_signal);
}

int ServiceBase::signal_doorbell() {
    return doorbell.load(std::memory_order_relaxed);
}

}  // namespace qm::app
