// The end-to-end harness itself, exercised with the shell instead of the recorder.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "child_process.hpp"
#include "orphan_reaper.hpp"
#include "temp_directory.hpp"
#include "udp_loopback.hpp"

namespace qm::test {
namespace {

constexpr std::chrono::milliseconds TIMEOUT{10000};

ProcessOptions shell(const std::string& script) {
    ProcessOptions options;
    options.args = {"-c", script};
    return options;
}

TEST(ChildProcessTest, CapturesOutputAndExitCode) {
    TempDirectory directory;
    ChildProcess process("/bin/sh", shell("echo out; echo err >&2; exit 3"), directory.path());

    const std::optional<ExitStatus> status = process.wait_exit(TIMEOUT);

    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited_with(3)) << status->describe();
    EXPECT_EQ(process.standard_output(), "out\n");
    EXPECT_EQ(process.error_lines(), std::vector<std::string>{"err"});
}

TEST(ChildProcessTest, PassesEnvironmentAndWorkingDirectory) {
    TempDirectory directory;
    ProcessOptions options = shell("echo \"$QM_HARNESS_VALUE $(pwd)\" >&2");
    options.environment = {"QM_HARNESS_VALUE=42"};
    options.working_directory = directory.path().string();
    ChildProcess process("/bin/sh", options, directory.path());

    ASSERT_TRUE(process.wait_exit(TIMEOUT).has_value());

    EXPECT_EQ(process.standard_error(), "42 " + directory.path().string() + "\n");
}

TEST(ChildProcessTest, WaitsForLinesAndReportsTheTerminatingSignal) {
    TempDirectory directory;
    ChildProcess process("/bin/sh", shell("echo ready >&2; exec sleep 30"), directory.path());

    ASSERT_TRUE(process.wait_for_line("ready", TIMEOUT));
    EXPECT_FALSE(process.wait_exit(std::chrono::milliseconds(0)).has_value());
    ASSERT_TRUE(process.send_signal(SIGTERM));
    const std::optional<ExitStatus> status = process.wait_exit(TIMEOUT);

    ASSERT_TRUE(status.has_value());
    EXPECT_FALSE(status->exited);
    EXPECT_EQ(status->signal, SIGTERM);
    EXPECT_FALSE(process.send_signal(SIGTERM)) << "already reaped";
    EXPECT_FALSE(process.wait_for_line("never printed", std::chrono::milliseconds(20)));
}

TEST(ChildProcessTest, DestructorKillsARunningProcess) {
    TempDirectory directory;
    pid_t pid = -1;
    {
        ChildProcess process("/bin/sh", shell("exec sleep 30"), directory.path());
        pid = process.pid();
    }
    EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(OrphanReaperTest, AdoptsTheChildOfAProcessThatExited) {
    TempDirectory directory;
    OrphanReaper reaper;
    ChildProcess parent("/bin/sh", shell("(sleep 0.2; exit 7) & echo $! >&2; exit 0"),
                        directory.path());

    ASSERT_TRUE(parent.wait_exit(TIMEOUT).has_value());
    const std::optional<OrphanReaper::Reaped> orphan = reaper.wait_any(TIMEOUT);

    ASSERT_TRUE(orphan.has_value());
    EXPECT_EQ(std::to_string(orphan->pid) + "\n", parent.standard_error());
    EXPECT_TRUE(orphan->status.exited_with(7)) << orphan->status.describe();
}

TEST(OrphanReaperTest, DestructorKillsRemainingChildren) {
    TempDirectory directory;
    pid_t orphan = -1;
    {
        OrphanReaper reaper;
        ChildProcess parent("/bin/sh", shell("sleep 30 & echo $! >&2; exit 0"), directory.path());
        ASSERT_TRUE(parent.wait_exit(TIMEOUT).has_value());
        orphan = static_cast<pid_t>(std::stol(parent.standard_error()));
        EXPECT_EQ(OrphanReaper::children(), std::vector<pid_t>{orphan});
    }
    EXPECT_EQ(::kill(orphan, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(UdpLoopbackTest, SendsToAFreePort) {
    const std::uint16_t port = free_udp_port();
    ASSERT_NE(port, 0);
    const int receiver = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    ASSERT_EQ(::bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    const std::vector<std::uint8_t> bytes = {0xFF, 0x00, 0xFF, 0x00, 1, 2, 3};
    ASSERT_TRUE(send_udp(port, bytes));

    pollfd waiting{receiver, POLLIN, 0};
    ASSERT_EQ(::poll(&waiting, 1, static_cast<int>(TIMEOUT.count())), 1);
    std::vector<std::uint8_t> received(64);
    const ssize_t size = ::recv(receiver, received.data(), received.size(), 0);
    ::close(receiver);
    ASSERT_EQ(size, static_cast<ssize_t>(bytes.size()));
    received.resize(static_cast<std::size_t>(size));
    EXPECT_EQ(received, bytes);
}

}  // namespace
}  // namespace qm::test
