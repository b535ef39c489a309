#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "exit_status.hpp"

namespace qm::test {

// How to start a program.
struct ProcessOptions {
    // The arguments after argv[0].
    std::vector<std::string> args;
    // "NAME=value" entries that are added to (or replace those of) the test's environment.
    std::vector<std::string> environment;
    // The directory the program starts in; empty keeps the test's own.
    std::string working_directory;
};

// A program started by a test, with its standard output and standard error each captured to a
// file in `output_directory` ("stdout.log", "stderr.log"). The destructor kills the process with
// SIGKILL and reaps it if it is still running, so a failing test never leaves it behind.
// Threads: used from the test's own thread only.
class ChildProcess {
public:
    // REQUIRES: `output_directory` exists. Starts at once; if the program cannot be executed the
    // child exits with 127.
    ChildProcess(const std::string& binary, const ProcessOptions& options,
                 const std::filesystem::path& output_directory);
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }

    std::string standard_output() const;
    std::string standard_error() const;
    // Standard error split into lines, without the line ends.
    std::vector<std::string> error_lines() const;

    // Polls standard error until a line contains `fragment`, or the timeout passes.
    bool wait_for_line(const std::string& fragment, std::chrono::milliseconds timeout) const;

    // False when the process has already been reaped or kill failed.
    bool send_signal(int signal) const;

    // Polls until the process ends and reaps it; nothing when the timeout passes first. Once
    // reaped, later calls return the same status at once.
    std::optional<ExitStatus> wait_exit(std::chrono::milliseconds timeout);

private:
    pid_t m_pid = -1;
    std::optional<ExitStatus> m_status;
    std::filesystem::path m_stdout_path;
    std::filesystem::path m_stderr_path;
};

// Reads a whole file; empty when it cannot be read.
std::string read_file(const std::filesystem::path& path);

// Splits text into lines without their line ends; a last line without one is kept.
std::vector<std::string> split_lines(const std::string& text);

}  // namespace qm::test
