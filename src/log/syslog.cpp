#include "log/syslog.hpp"

#include <syslog.h>

#include <sstream>

#include "log/logger.hpp"

namespace qm::log {

void Syslog::write(void*, const char* file, int line, const Message& message) {
    if (!is_enabled(message.level)) {
        return;
    }
    std::ostringstream text;
    format_message(text, file, line, message) << '\n';
    ::syslog(LOG_USER | level_to_syslevel(message.level), "%s", text.str().c_str());
}

void Syslog::close(void*) {
    ::closelog();
}

}  // namespace qm::log
