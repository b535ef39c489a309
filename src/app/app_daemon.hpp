#pragma once

#include <functional>
#include <string>

namespace qm::app {

// What `switch_to_daemon_mode` needs: where the pid and the daemon's own output go, where it
// lives, and the service's hooks around the fork. Built and used on the main thread before any
// other thread exists.
struct DaemonModeArgs {
    // Path of the pid file; empty means no pid file.
    std::string pid_file;
    // Receives the daemon's standard output and standard error.
    std::string log_file;
    // The directory the daemon changes into.
    std::string working_directory = "/tmp";
    // Runs in the child right after the fork.
    std::function<void()> on_child_start;
    // Runs before the child exits because of a failure.
    std::function<void()> on_failure;
    // Runs in the parent (and after a failed fork) before it exits.
    std::function<void()> on_parent_exit;
};

// Forks, detaches the child into a new session with its standard streams redirected, changes its
// directory and writes the pid file. Returns only in the daemon child; the parent exits with 0,
// every failure with 1 (after logging it and running the matching hook).
// REQUIRES: called on the main thread while no other thread runs; every hook is set.
void switch_to_daemon_mode(DaemonModeArgs args);

}  // namespace qm::app
