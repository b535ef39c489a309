#include "log/stdlog.hpp"

#include <iostream>
#include <sstream>

#include "log/logger.hpp"

namespace qm::log {

void Stdlog::write(void*, const char* file, int line, const Message& message) {
    if (!is_enabled(message.level)) {
        return;
    }
    // The line is built first and inserted at once, so that lines of different threads do not
    // interleave inside one another.
    std::ostringstream text;
    text << format_time() << message_delimiter;
    format_message(text, file, line, message) << '\n';
    std::clog << text.view();
}

}  // namespace qm::log
