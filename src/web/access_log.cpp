#include "web/access_log.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace qm::web {
namespace {

const char* access_name(Access what) {
    switch (what) {
        case Access::PLAY:
            return "play";
        case Access::DOWNLOAD:
            return "download";
        case Access::VIEW:
            return "view";
    }
    return "unknown";
}

// `text` with every byte outside printable ASCII, and the space, as '?'.
std::string printable(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c <= ' ' || c > '~') {
            c = '?';
        }
    }
    return out;
}

std::string utc_time(AccessLog::Time time) {
    const auto since_epoch =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    const std::time_t seconds = static_cast<std::time_t>(since_epoch.count() / 1000);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  static_cast<int>(since_epoch.count() % 1000));
    return text;
}

}  // namespace

std::unique_ptr<AccessLog> AccessLog::open(const std::string& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (fd < 0) {
        error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<AccessLog>(new AccessLog(fd));
}

AccessLog::AccessLog(int fd) : m_fd(fd) {}

AccessLog::~AccessLog() {
    ::close(m_fd);
}

bool AccessLog::record(std::string_view user, std::string_view address, std::string_view uuid,
                       Access what, Time time) {
    const std::string text = line(user, address, uuid, what, time);
    const std::lock_guard lock(m_mutex);
    // One write with O_APPEND puts the line at the end whole; a short write is a failure rather
    // than a second write, which could leave half a line.
    ssize_t written;
    do {
        written = ::write(m_fd, text.data(), text.size());
    } while (written < 0 && errno == EINTR);
    if (written != static_cast<ssize_t>(text.size())) {
        ++m_failures;
        return false;
    }
    return true;
}

std::uint64_t AccessLog::failures() const {
    const std::lock_guard lock(m_mutex);
    return m_failures;
}

std::string AccessLog::line(std::string_view user, std::string_view address, std::string_view uuid,
                            Access what, Time time) {
    return utc_time(time) + " user=" + printable(user) + " address=" + printable(address) +
           " uuid=" + printable(uuid) + " what=" + access_name(what) + "\n";
}

}  // namespace qm::web
