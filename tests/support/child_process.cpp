#include "child_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "poll.hpp"

extern char** environ;

namespace qm::test {
namespace {

std::string variable_name(const std::string& entry) {
    return entry.substr(0, entry.find('='));
}

// The test's environment with `extra` added; an extra entry replaces one of the same name.
std::vector<std::string> merged_environment(const std::vector<std::string>& extra) {
    std::vector<std::string> result = extra;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        bool replaced = false;
        for (const std::string& added : extra) {
            replaced = replaced || variable_name(added) == variable_name(text);
        }
        if (!replaced) {
            result.push_back(text);
        }
    }
    return result;
}

// A null-terminated array of pointers into `strings`, which must outlive it.
std::vector<char*> c_array(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (std::string& text : strings) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

int open_output(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw std::runtime_error("cannot create " + path.string() + ": " + std::strerror(errno));
    }
    return fd;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& binary, const ProcessOptions& options,
                           const std::filesystem::path& output_directory)
    : m_stdout_path(output_directory / "stdout.log"),
      m_stderr_path(output_directory / "stderr.log") {
    // Everything the child needs is prepared before the fork: between fork and exec only
    // async-signal-safe calls are allowed.
    std::vector<std::string> arguments{binary};
    arguments.insert(arguments.end(), options.args.begin(), options.args.end());
    std::vector<std::string> environment = merged_environment(options.environment);
    std::vector<char*> argv = c_array(arguments);
    std::vector<char*> envp = c_array(environment);
    const int out = open_output(m_stdout_path);
    const int err = open_output(m_stderr_path);

    m_pid = ::fork();
    if (m_pid == 0) {
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        if (!options.working_directory.empty() && ::chdir(options.working_directory.c_str()) < 0) {
            ::_exit(127);
        }
        ::execve(binary.c_str(), argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(out);
    ::close(err);
    if (m_pid < 0) {
        throw std::runtime_error(std::string("fork failed: ") + std::strerror(errno));
    }
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && !m_status) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
    }
}

std::string ChildProcess::standard_output() const {
    return read_file(m_stdout_path);
}

std::string ChildProcess::standard_error() const {
    return read_file(m_stderr_path);
}

std::vector<std::string> ChildProcess::error_lines() const {
    return split_lines(standard_error());
}

bool ChildProcess::wait_for_line(const std::string& fragment,
                                 std::chrono::milliseconds timeout) const {
    return poll_until([&] { return standard_error().find(fragment) != std::string::npos; }, timeout,
                      std::chrono::milliseconds(10));
}

bool ChildProcess::send_signal(int signal) const {
    return m_pid > 0 && !m_status && ::kill(m_pid, signal) == 0;
}

std::optional<ExitStatus> ChildProcess::wait_exit(std::chrono::milliseconds timeout) {
    poll_until(
        [&] {
            int status = 0;
            if (!m_status && ::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_status = ExitStatus::from_wait_status(status);
            }
            return m_status.has_value();
        },
        timeout);
    return m_status;
}

std::string read_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace qm::test
