#include "app/app_daemon.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "child_process.hpp"
#include "log/logger.hpp"
#include "log/stdlog.hpp"
#include "orphan_reaper.hpp"
#include "temp_directory.hpp"

namespace qm::app {
namespace {

using qm::test::ExitStatus;
using qm::test::OrphanReaper;
using qm::test::read_file;
using qm::test::TempDirectory;

constexpr std::chrono::milliseconds TIMEOUT{10000};

// Runs in the forked processes, where a failed assertion would go unseen: a short write shows up
// as a missing event instead.
void write_text(int fd, const std::string& text) {
    [[maybe_unused]] const ssize_t written = ::write(fd, text.data(), text.size());
}

// Where one of the process's descriptors points, or "closed".
std::string descriptor_target(int fd) {
    std::error_code error;
    const std::filesystem::path target =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
    return error ? "closed" : target.string();
}

// What the daemon reports about itself once the switch has returned: the descriptor that a file
// opened next gets shows whether one of the standard ones was left free.
std::string describe_daemon() {
    char cwd[4096] = {};
    const bool has_cwd = ::getcwd(cwd, sizeof cwd) != nullptr;
    char byte = 0;
    const int next = ::open("/dev/zero", O_RDONLY);
    return std::string("R umask=") + std::to_string(::umask(0)) +
           " own-session=" + (::getsid(0) == ::getpid() ? "yes" : "no") +
           " stdin-empty=" + (::read(STDIN_FILENO, &byte, 1) == 0 ? "yes" : "no") +
           " cwd=" + (has_cwd ? cwd : "?") + " out=" + descriptor_target(STDOUT_FILENO) +
           " err=" + descriptor_target(STDERR_FILENO) +
           " next-fd-free=" + (next > STDERR_FILENO ? "yes" : "no") + "\n";
}

// Runs the switch in a forked child (the daemon's parent-to-be), whose log goes through the
// standard-error sink into "parent.log"; after the fork the daemon's own standard error is the
// switch's log file, so the daemon's lines land there. The hooks write a letter each into a pipe
// (P parent exit, C child start, F failure); the daemon, once the switch returns, writes its
// report line and exits 0. The test is the subreaper, so it reaps the daemon too.
class DaemonSwitchTest : public ::testing::Test {
protected:
    struct Outcome {
        ExitStatus parent;
        pid_t daemon_pid = -1;
        ExitStatus daemon;
        std::string events;
    };

    DaemonModeArgs make_args() const {
        DaemonModeArgs args;
        args.pid_file = pid_path;
        args.log_file = log_path;
        args.working_directory = work_path;
        return args;
    }

    Outcome run(DaemonModeArgs args) {
        int events[2];
        EXPECT_EQ(::pipe(events), 0);
        std::fflush(nullptr);
        const pid_t parent = ::fork();
        if (parent == 0) {
            ::close(events[0]);
            run_parent(std::move(args), events[1]);
        }
        ::close(events[1]);

        Outcome outcome;
        const std::optional<ExitStatus> parent_status = reaper.wait_for(parent, TIMEOUT);
        EXPECT_TRUE(parent_status.has_value());
        outcome.parent = parent_status.value_or(ExitStatus{});
        const std::optional<OrphanReaper::Reaped> daemon = reaper.wait_any(TIMEOUT);
        EXPECT_TRUE(daemon.has_value());
        if (daemon) {
            outcome.daemon_pid = daemon->pid;
            outcome.daemon = daemon->status;
        }
        // Every writer has ended, so the pipe reads to its end.
        char buffer[4096];
        for (ssize_t size; (size = ::read(events[0], buffer, sizeof buffer)) > 0;) {
            outcome.events.append(buffer, static_cast<std::size_t>(size));
        }
        ::close(events[0]);
        return outcome;
    }

    [[noreturn]] void run_parent(DaemonModeArgs args, int events) {
        if (std::freopen(parent_log_path.c_str(), "w", stderr) == nullptr) {
            ::_exit(120);
        }
        log::Logger::m_instance.write = &log::Stdlog::write;
        args.on_parent_exit = [events] { write_text(events, "P"); };
        args.on_child_start = [events] {
            write_text(events, "C");
            // Still the parent's standard error: the streams are redirected after this hook.
            std::fputs("child start\n", stderr);
        };
        args.on_failure = [events] { write_text(events, "F"); };
        switch_to_daemon_mode(std::move(args));
        write_text(events, describe_daemon());
        std::fputs("daemon output\n", stdout);
        std::fflush(nullptr);
        ::_exit(0);
    }

    OrphanReaper reaper;
    TempDirectory directory;
    const std::string pid_path = (directory.path() / "daemon.pid").string();
    const std::string log_path = (directory.path() / "daemon.log").string();
    const std::string parent_log_path = (directory.path() / "parent.log").string();
    const std::string work_path = (directory.path() / "work").string();
};

TEST_F(DaemonSwitchTest, ChildBecomesADetachedDaemonWithAPidFile) {
    std::filesystem::create_directory(work_path);
    directory.write_file("daemon.pid", "999999999\n");  // an old file is truncated

    const Outcome outcome = run(make_args());

    EXPECT_TRUE(outcome.parent.exited_with(0)) << outcome.parent.describe();
    EXPECT_TRUE(outcome.daemon.exited_with(0)) << outcome.daemon.describe();
    EXPECT_EQ(read_file(pid_path), std::to_string(outcome.daemon_pid));
    // The parent's letter may come before or after the daemon's; the daemon's own letter comes
    // before its report.
    const std::string report = "R umask=0 own-session=yes stdin-empty=yes cwd=" + work_path +
                               " out=" + log_path + " err=" + log_path + " next-fd-free=yes\n";
    const std::size_t report_at = outcome.events.find(report);
    ASSERT_NE(report_at, std::string::npos) << outcome.events;
    EXPECT_NE(outcome.events.substr(0, report_at).find('C'), std::string::npos) << outcome.events;
    std::string hooks = outcome.events;
    hooks.erase(report_at, report.size());
    std::sort(hooks.begin(), hooks.end());
    EXPECT_EQ(hooks, "CP") << outcome.events;
    EXPECT_EQ(read_file(log_path), "daemon output\n");

    const std::vector<std::string> parent_lines = qm::test::split_lines(read_file(parent_log_path));
    ASSERT_EQ(parent_lines.size(), 2u) << read_file(parent_log_path);
    EXPECT_NE(parent_lines[0].find(" | SYSTEM  | app_daemon.cpp:"), std::string::npos);
    EXPECT_NE(parent_lines[0].find(" | DAEMON: starting application in daemon mode"),
              std::string::npos)
        << parent_lines[0];
    EXPECT_EQ(parent_lines[1], "child start");
}

// A log file that cannot be opened must not leave descriptors 1 and 2 free for the next file the
// daemon opens (a recording, say), where a stray write to standard error would land.
TEST_F(DaemonSwitchTest, LogFileInAMissingDirectoryPointsOutputAndErrorAtDevNull) {
    std::filesystem::create_directory(work_path);
    DaemonModeArgs args = make_args();
    args.log_file = (directory.path() / "missing" / "daemon.log").string();

    const Outcome outcome = run(std::move(args));

    EXPECT_TRUE(outcome.parent.exited_with(0)) << outcome.parent.describe();
    EXPECT_TRUE(outcome.daemon.exited_with(0)) << outcome.daemon.describe();
    EXPECT_NE(outcome.events.find("R umask=0 own-session=yes stdin-empty=yes cwd=" + work_path +
                                  " out=/dev/null err=/dev/null next-fd-free=yes\n"),
              std::string::npos)
        << outcome.events;
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "missing"));
    EXPECT_EQ(read_file(pid_path), std::to_string(outcome.daemon_pid));
}

TEST_F(DaemonSwitchTest, PidFileInAMissingDirectoryEndsTheChildWithOne) {
    std::filesystem::create_directory(work_path);
    DaemonModeArgs args = make_args();
    args.pid_file = (directory.path() / "missing" / "daemon.pid").string();

    const Outcome outcome = run(std::move(args));

    EXPECT_TRUE(outcome.parent.exited_with(0)) << outcome.parent.describe();
    EXPECT_TRUE(outcome.daemon.exited_with(1)) << outcome.daemon.describe();
    std::string hooks = outcome.events;
    std::sort(hooks.begin(), hooks.end());
    EXPECT_EQ(hooks, "CFP") << "no report from the daemon";
    const std::vector<std::string> lines = qm::test::split_lines(read_file(log_path));
    ASSERT_EQ(lines.size(), 1u) << read_file(log_path);
    EXPECT_NE(lines[0].find(" | ERROR   | app_daemon.cpp:"), std::string::npos) << lines[0];
    const std::string expected = " | DAEMON: failed to open pid file \"" +
                                 (directory.path() / "missing" / "daemon.pid").string() +
                                 "\"; error [2]: No such file or directory";
    EXPECT_EQ(lines[0].substr(lines[0].size() - expected.size()), expected) << lines[0];
}

TEST_F(DaemonSwitchTest, MissingWorkingDirectoryEndsTheChildWithOne) {
    const Outcome outcome = run(make_args());

    EXPECT_TRUE(outcome.parent.exited_with(0)) << outcome.parent.describe();
    EXPECT_TRUE(outcome.daemon.exited_with(1)) << outcome.daemon.describe();
    std::string hooks = outcome.events;
    std::sort(hooks.begin(), hooks.end());
    EXPECT_EQ(hooks, "CFP") << "no report from the daemon";
    EXPECT_FALSE(std::filesystem::exists(pid_path));
    const std::string log = read_file(log_path);
    EXPECT_NE(log.find(" | ERROR   | app_daemon.cpp:"), std::string::npos) << log;
    EXPECT_NE(log.find(" | DAEMON: failed to change working directory to " + work_path + "\n"),
              std::string::npos)
        << log;
}

TEST_F(DaemonSwitchTest, EmptyPidFilePathWritesNoPidFile) {
    std::filesystem::create_directory(work_path);
    DaemonModeArgs args = make_args();
    args.pid_file.clear();

    const Outcome outcome = run(std::move(args));

    EXPECT_TRUE(outcome.daemon.exited_with(0)) << outcome.daemon.describe();
    EXPECT_TRUE(std::filesystem::is_empty(work_path));
    EXPECT_FALSE(std::filesystem::exists(pid_path));
}

}  // namespace
}  // namespace qm::app
