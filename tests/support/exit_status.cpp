#include "exit_status.hpp"

#include <sys/wait.h>

namespace qm::test {

ExitStatus ExitStatus::from_wait_status(int status) {
    ExitStatus result;
    if (WIFEXITED(status)) {
        result.exited = true;
        result.code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

std::string ExitStatus::describe() const {
    return exited ? "exit code " + std::to_string(code) : "signal " + std::to_string(signal);
}

}  // namespace qm::test
