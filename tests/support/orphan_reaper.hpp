#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <vector>

#include "exit_status.hpp"

namespace qm::test {

// Makes the test process the child subreaper for its lifetime: a daemon whose parent exits is
// re-parented to the test instead of to init, so the test can wait for it and read its exit
// status. The destructor kills (SIGKILL) and reaps every child still alive, so a daemon never
// outlives its test. Threads: used from the test's own thread only; one at a time per process.
class OrphanReaper {
public:
    OrphanReaper();
    ~OrphanReaper();

    OrphanReaper(const OrphanReaper&) = delete;
    OrphanReaper& operator=(const OrphanReaper&) = delete;

    struct Reaped {
        pid_t pid;
        ExitStatus status;
    };

    // Waits until any child of the test ends and reaps it; nothing when the timeout passes.
    std::optional<Reaped> wait_any(std::chrono::milliseconds timeout);

    // Waits until the child `pid` ends and reaps it; nothing when the timeout passes.
    std::optional<ExitStatus> wait_for(pid_t pid, std::chrono::milliseconds timeout);

    // The processes whose parent is the test process right now (read from /proc).
    static std::vector<pid_t> children();
};

}  // namespace qm::test
