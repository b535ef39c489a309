#include "app/app_daemon.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/logger.hpp"

namespace qm::app {
namespace {

[[noreturn]] void fail(const DaemonModeArgs& args) {
    args.on_failure();
    std::exit(1);
}

// Writes the pid in decimal, creating or truncating the file.
[[nodiscard]] bool write_pid_file(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        const int error = errno;
        QM_LOG_ERROR("DAEMON: failed to open pid file \"" << path << "\"; error [" << error
                                                          << "]: " << std::strerror(error));
        return false;
    }
    std::fprintf(file, "%d", static_cast<int>(::getpid()));
    std::fclose(file);
    return true;
}

// A failure is deliberately not reported: the daemon logs through the system log, and a missing
// output file only loses what is written to the standard streams directly. But a failed reopen
// leaves the stream's descriptor free, and the next file the process opens would take it: a
// stray write to standard error would then land in that file, a recording perhaps. So the stream
// falls back to /dev/null.
void reopen(const char* path, const char* mode, std::FILE* stream) {
    if (std::freopen(path, mode, stream) == nullptr) {
        [[maybe_unused]] std::FILE* const discarding = std::freopen("/dev/null", mode, stream);
    }
}

}  // namespace

void switch_to_daemon_mode(DaemonModeArgs args) {
    QM_LOG_SYSTEM("DAEMON: starting application in daemon mode");
    // Output still buffered in the standard streams would otherwise be written by both processes.
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        const int error = errno;
        QM_LOG_ERROR("DAEMON: failed to fork process; error [" << error
                                                               << "]: " << std::strerror(error));
        args.on_parent_exit();
        std::exit(1);
    }
    if (pid > 0) {
        args.on_parent_exit();
        std::exit(0);
    }

    args.on_child_start();
    ::umask(0);
    reopen("/dev/null", "r", stdin);
    reopen(args.log_file.c_str(), "a", stdout);
    reopen(args.log_file.c_str(), "a", stderr);
    if (::setsid() < 0) {
        const int error = errno;
        QM_LOG_ERROR("DAEMON: failed to create SID for daemon process; error ["
                     << error << "]: " << std::strerror(error));
        fail(args);
    }
    if (::chdir(args.working_directory.c_str()) < 0) {
        QM_LOG_ERROR("DAEMON: failed to change working directory to " << args.working_directory);
        fail(args);
    }
    if (!args.pid_file.empty() && !write_pid_file(args.pid_file)) {
        fail(args);
    }
}

}  // namespace qm::app
