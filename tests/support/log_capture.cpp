#include "log_capture.hpp"

#include <sstream>

#include "poll.hpp"

namespace qm::test {

LogCapture::LogCapture(log::Level threshold) {
    log::LoggerImpl& logger = log::Logger::m_instance;
    m_saved_context = logger.context;
    m_saved_close = logger.close;
    m_saved_write = logger.write;
    m_saved_level = log::get_level();
    logger.context = this;
    logger.close = nullptr;
    logger.write = &LogCapture::write;
    log::set_level(threshold);
}

LogCapture::~LogCapture() {
    log::LoggerImpl& logger = log::Logger::m_instance;
    logger.context = m_saved_context;
    logger.close = m_saved_close;
    logger.write = m_saved_write;
    log::set_level(m_saved_level);
}

void LogCapture::write(void* context, const char* file, int line, const log::Message& message) {
    if (!log::is_enabled(message.level)) {
        return;
    }
    auto* self = static_cast<LogCapture*>(context);
    std::ostringstream formatted;
    log::format_message(formatted, file, line, message);
    std::lock_guard lock(self->m_mutex);
    self->m_entries.push_back({message.level, formatted.str(), message.text()});
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(m_mutex);
    std::vector<std::string> result;
    for (const Entry& entry : m_entries) {
        result.push_back(entry.line);
    }
    return result;
}

std::vector<std::string> LogCapture::texts() const {
    std::lock_guard lock(m_mutex);
    std::vector<std::string> result;
    for (const Entry& entry : m_entries) {
        result.push_back(entry.text);
    }
    return result;
}

std::vector<std::string> LogCapture::texts(log::Level level) const {
    std::lock_guard lock(m_mutex);
    std::vector<std::string> result;
    for (const Entry& entry : m_entries) {
        if (entry.level == level) {
            result.push_back(entry.text);
        }
    }
    return result;
}

std::size_t LogCapture::count(const std::string& text) const {
    std::lock_guard lock(m_mutex);
    std::size_t result = 0;
    for (const Entry& entry : m_entries) {
        result += entry.text == text ? 1 : 0;
    }
    return result;
}

bool LogCapture::contains(const std::string& fragment) const {
    std::lock_guard lock(m_mutex);
    for (const Entry& entry : m_entries) {
        if (entry.text.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool LogCapture::wait_for(const std::string& fragment, std::chrono::milliseconds timeout) const {
    return poll_until([&] { return contains(fragment); }, timeout);
}

void LogCapture::clear() {
    std::lock_guard lock(m_mutex);
    m_entries.clear();
}

}  // namespace qm::test
