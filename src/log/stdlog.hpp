#pragma once

#include "log/message.hpp"

namespace qm::log {

// The foreground sink: one line per message on standard error, prefixed with the local time.
struct Stdlog {
    static void write(void* context, const char* file, int line, const Message& message);
};

}  // namespace qm::log
