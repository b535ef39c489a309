#pragma once

#include "log/message.hpp"

namespace qm::log {

// The daemon's sink: one record per message to the system log (which adds its own time stamp).
// The connection is opened by the service frame; `close` ends it.
struct Syslog {
    static void write(void* context, const char* file, int line, const Message& message);
    static void close(void* context);
};

}  // namespace qm::log
