#include "syslog_listener.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "poll.hpp"

namespace qm::test {
namespace {

constexpr const char* DEV_LOG = "/dev/log";
constexpr const char* LOCK_PATH = "/tmp/qm_test_dev_log.lock";

sockaddr_un dev_log_address() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, DEV_LOG, sizeof address.sun_path - 1);
    return address;
}

// True when /dev/log is a socket that nobody reads any more (left by a test that crashed).
bool is_stale_socket() {
    struct stat status {};
    if (::lstat(DEV_LOG, &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return false;
    }
    const int probe = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = dev_log_address();
    const bool refused =
        ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
        errno == ECONNREFUSED;
    ::close(probe);
    return refused;
}

}  // namespace

DevLogLock::DevLogLock() : m_fd(::open(LOCK_PATH, O_CREAT | O_RDWR | O_CLOEXEC, 0666)) {
    ::flock(m_fd, LOCK_EX);
}

DevLogLock::~DevLogLock() {
    ::flock(m_fd, LOCK_UN);
    ::close(m_fd);
}

SyslogListener::SyslogListener() {
    if (is_stale_socket()) {
        ::unlink(DEV_LOG);
    }
    if (::access(DEV_LOG, F_OK) == 0) {
        return;
    }
    m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = dev_log_address();
    if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(m_socket);
        m_socket = -1;
        return;
    }
    // Any local process may log.
    ::chmod(DEV_LOG, 0666);
    m_reader = std::thread([this] { run(); });
}

SyslogListener::~SyslogListener() {
    if (m_reader.joinable()) {
        m_stopping.store(true, std::memory_order_relaxed);
        m_reader.join();
    }
    if (m_socket >= 0) {
        ::close(m_socket);
        ::unlink(DEV_LOG);
    }
}

bool SyslogListener::wait_for_record(const std::string& fragment,
                                     std::chrono::milliseconds timeout) {
    return available() && poll_until([&] { return contains(fragment); }, timeout);
}

std::vector<std::string> SyslogListener::records() const {
    std::lock_guard lock(m_mutex);
    return m_records;
}

bool SyslogListener::contains(const std::string& fragment) const {
    std::lock_guard lock(m_mutex);
    for (const std::string& record : m_records) {
        if (record.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void SyslogListener::run() {
    pollfd waiting{m_socket, POLLIN, 0};
    while (!m_stopping.load(std::memory_order_relaxed)) {
        if (::poll(&waiting, 1, 20) <= 0) {
            continue;
        }
        char buffer[8192];
        const ssize_t size = ::recv(m_socket, buffer, sizeof buffer, MSG_DONTWAIT);
        if (size > 0) {
            std::lock_guard lock(m_mutex);
            m_records.emplace_back(buffer, static_cast<std::size_t>(size));
        }
    }
}

}  // namespace qm::test
