#pragma once

#include <string>

namespace qm::test {

// How a child process ended: its exit code, or the signal that terminated it.
struct ExitStatus {
    bool exited = false;
    int code = -1;   // the exit code when `exited`
    int signal = 0;  // the terminating signal otherwise

    // From a status filled by waitpid for a process that has ended.
    static ExitStatus from_wait_status(int status);

    bool exited_with(int expected) const { return exited && code == expected; }
    // "exit code 1" or "signal 9", for assertion messages.
    std::string describe() const;
};

}  // namespace qm::test
