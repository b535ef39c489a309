#include "orphan_reaper.hpp"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "poll.hpp"

namespace qm::test {
namespace {

// The parent pid field of /proc/<pid>/stat; the command name before it is in parentheses and
// may contain blanks, so the fields are read after the last ')'.
pid_t parent_of(const std::filesystem::path& stat_path) {
    std::ifstream file(stat_path);
    std::string content;
    std::getline(file, content);
    const std::size_t end_of_name = content.rfind(')');
    if (end_of_name == std::string::npos) {
        return -1;
    }
    char state = 0;
    pid_t parent = -1;
    std::istringstream fields(content.substr(end_of_name + 1));
    fields >> state >> parent;
    return parent;
}

bool is_number(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

OrphanReaper::OrphanReaper() {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

OrphanReaper::~OrphanReaper() {
    for (const pid_t child : children()) {
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
    }
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

std::optional<OrphanReaper::Reaped> OrphanReaper::wait_any(std::chrono::milliseconds timeout) {
    std::optional<Reaped> reaped;
    poll_until(
        [&] {
            int status = 0;
            const pid_t pid = ::waitpid(-1, &status, WNOHANG);
            if (pid > 0) {
                reaped = Reaped{pid, ExitStatus::from_wait_status(status)};
            }
            return reaped.has_value();
        },
        timeout);
    return reaped;
}

std::optional<ExitStatus> OrphanReaper::wait_for(pid_t pid, std::chrono::milliseconds timeout) {
    std::optional<ExitStatus> result;
    poll_until(
        [&] {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                result = ExitStatus::from_wait_status(status);
            }
            return result.has_value();
        },
        timeout);
    return result;
}

std::vector<pid_t> OrphanReaper::children() {
    std::vector<pid_t> result;
    const pid_t self = ::getpid();
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename().string();
        if (is_number(name) && parent_of(entry.path() / "stat") == self) {
            result.push_back(static_cast<pid_t>(std::stol(name)));
        }
    }
    return result;
}

}  // namespace qm::test
