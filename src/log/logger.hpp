#pragma once

#include <sys/time.h>

#include <atomic>
#include <ostream>
#include <string>

#include "log/level.hpp"
#include "log/message.hpp"

namespace qm::log {

// " | " between the columns of a line.
inline constexpr const char* message_delimiter = " | ";

// Directory of the daemon's own output file.
extern const std::string default_directory;

// The process-wide logger: a record of plain function pointers, so that the sink can be swapped
// without locks or virtual dispatch. The main thread installs a sink at start-up and restores the
// discarding one at shutdown, while no worker thread runs; every thread calls `write` concurrently.
struct LoggerImpl {
    using CloseFn = void (*)(void* context);
    using WriteFn = void (*)(void* context, const char* file, int line, const Message& message);

    ~LoggerImpl();

    static void dummy_write(void* context, const char* file, int line, const Message& message);

    void* context = nullptr;
    CloseFn close = nullptr;
    WriteFn write = &dummy_write;
    // Read on every message by every thread; relaxed is enough because it is only a filter and
    // nothing else is published through it.
    std::atomic<Level> level{Level::INFO};
};

struct Logger {
    static LoggerImpl m_instance;
};

// True when a message of `level` would pass the threshold; DEBUG and TRACE call sites test this
// before building their text.
inline bool is_enabled(Level level) {
    return level <= Logger::m_instance.level.load(std::memory_order_relaxed);
}

inline void set_level(Level level) {
    Logger::m_instance.level.store(level, std::memory_order_relaxed);
}

inline Level get_level() {
    return Logger::m_instance.level.load(std::memory_order_relaxed);
}

// Hands one message to the installed sink.
inline void emit(const char* file, int line, const Message& message) {
    LoggerImpl& logger = Logger::m_instance;
    logger.write(logger.context, file, line, message);
}

// Level columns, place and text: "INFO    | file.cpp:120 | text".
std::ostream& format_message(std::ostream& out, const char* file, int line, const Message& message);

// Local wall-clock time: "2021.10.11 12:17:18.004211".
std::string format_time();
std::string format_time(const timeval& now);

}  // namespace qm::log

#define QM_LOG_EMIT(MessageType, text) \
    ::qm::log::emit(__FILE_NAME__, __LINE__, MessageType() << text)

#define QM_LOG_SYSTEM(text) QM_LOG_EMIT(::qm::log::SystemMessage, text)
#define QM_LOG_ERROR(text) QM_LOG_EMIT(::qm::log::ErrorMessage, text)
#define QM_LOG_WARNING(text) QM_LOG_EMIT(::qm::log::WarningMessage, text)
#define QM_LOG_INFO(text) QM_LOG_EMIT(::qm::log::InfoMessage, text)
#define QM_LOG_DEBUG(text)                                                          \
    do {                                                                            \
        if (::qm::log::is_enabled(::qm::log::Level::DEBUG)) {                       \
            ::qm::log::Message qm_log_debug_message(::qm::log::Level::DEBUG);       \
            ::qm::log::emit(__FILE_NAME__, __LINE__, qm_log_debug_message << text); \
        }                                                                           \
    } while (false)
#define QM_LOG_TRACE(text)                                    \
    do {                                                      \
        if (::qm::log::is_enabled(::qm::log::Level::TRACE)) { \
            QM_LOG_EMIT(::qm::log::TraceMessage, text);       \
        }                                                     \
    } while (false)
