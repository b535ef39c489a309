#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "log/logger.hpp"

namespace qm::test {

// Installs a sink that keeps every line that passes the threshold, formatted as the real sinks
// format it but without the time column ("INFO    | file.cpp:12 | text"). Restores the previous
// sink and threshold when it goes out of scope. Lines may be logged from any thread.
class LogCapture {
public:
    explicit LogCapture(log::Level threshold = log::Level::TRACE);
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Every captured line.
    std::vector<std::string> lines() const;
    // Only the message texts, without level and place columns.
    std::vector<std::string> texts() const;
    // Message texts of the given level.
    std::vector<std::string> texts(log::Level level) const;
    // How many message texts equal `text` exactly.
    std::size_t count(const std::string& text) const;
    // True when a message text contains `fragment`.
    bool contains(const std::string& fragment) const;
    // Polls until a message text contains `fragment`, or the timeout passes.
    bool wait_for(const std::string& fragment,
                  std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const;
    void clear();

private:
    struct Entry {
        log::Level level;
        std::string line;
        std::string text;
    };

    static void write(void* context, const char* file, int line, const log::Message& message);

    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries;
    void* m_saved_context;
    log::LoggerImpl::CloseFn m_saved_close;
    log::LoggerImpl::WriteFn m_saved_write;
    log::Level m_saved_level;
};

}  // namespace qm::test
