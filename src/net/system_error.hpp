#pragma once

#include <ostream>
#include <system_error>

namespace qm::net {

// The tail of every failure line: "error (<errno>): <system text>". Built from errno right after
// the failing call, before logging can touch errno.
struct SystemError {
    int code;
};

inline std::ostream& operator<<(std::ostream& out, SystemError error) {
    // The category's message is strerror's text without strerror's shared buffer.
    return out << "error (" << error.code << "): " << std::system_category().message(error.code);
}

}  // namespace qm::net
