#include "log/logger.hpp"

#include <sys/time.h>

#include <cstdio>
#include <ctime>

namespace qm::log {

const std::string default_directory = "/var/log/varnholt/quillmar";

LoggerImpl Logger::m_instance;

LoggerImpl::~LoggerImpl() {
    if (close != nullptr) {
        close(context);
    }
}

void LoggerImpl::dummy_write(void*, const char*, int, const Message&) {}

std::ostream& format_message(std::ostream& out, const char* file, int line,
                             const Message& message) {
    out << level_to_string(message.level) << level_to_spaces(message.level) << message_delimiter
        << file << ':' << line << message_delimiter << message.stream.view();
    return out;
}

std::string format_time() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return format_time(now);
}

std::string format_time(const timeval& now) {
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char buffer[64];
    std::size_t length = std::strftime(buffer, sizeof buffer, "%Y.%m.%d %X", &local);
    std::snprintf(buffer + length, sizeof buffer - length, ".%06d", static_cast<int>(now.tv_usec));
    return buffer;
}

}  // namespace qm::log
