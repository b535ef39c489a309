// The recorder binary's start-up as a user sees it: command line, configuration loading, log
// lines, exit statuses and daemon mode.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <regex>

#include "child_process.hpp"
#include "orphan_reaper.hpp"
#include "poll.hpp"
#include "syslog_listener.hpp"
#include "temp_directory.hpp"

namespace qm::test {
namespace {

constexpr std::chrono::milliseconds TIMEOUT{10000};

// A whole standard-error line: time, level, place, text.
std::regex line_pattern(const std::string& level_column, const std::string& file,
                        const std::string& text_pattern) {
    return std::regex(R"(^\d{4}\.\d{2}\.\d{2} \d{2}:\d{2}:\d{2}\.\d{6} \| )" + level_column +
                      R"( \| )" + file + R"(:\d+ \| )" + text_pattern + "$");
}

// Escapes the characters that have a meaning in a regular expression.
std::string literal(const std::string& text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

class ServiceE2eTest : public ::testing::Test {
protected:
    // Starts the binary with its output in a directory of its own under the test's directory.
    ChildProcess& start(std::vector<std::string> args, const std::string& working_directory = {}) {
        const std::filesystem::path output =
            directory.path() / ("run" + std::to_string(m_processes.size()));
        std::filesystem::create_directory(output);
        ProcessOptions options;
        options.args = std::move(args);
        options.working_directory = working_directory;
        m_processes.push_back(std::make_unique<ChildProcess>(QM_BINARY_PATH, options, output));
        return *m_processes.back();
    }

    static ExitStatus finish(ChildProcess& process) {
        const std::optional<ExitStatus> status = process.wait_exit(TIMEOUT);
        EXPECT_TRUE(status.has_value()) << "the process did not end";
        return status.value_or(ExitStatus{});
    }

    // The index of the first standard-error line that contains `fragment`, or -1.
    static long line_index(const std::vector<std::string>& lines, const std::string& fragment) {
        const auto found = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(fragment) != std::string::npos;
        });
        return found == lines.end() ? -1 : found - lines.begin();
    }

    static bool has_line(const std::vector<std::string>& lines, const std::regex& pattern) {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return std::regex_match(line, pattern);
        });
    }

    TempDirectory directory;

private:
    std::vector<std::unique_ptr<ChildProcess>> m_processes;
};

TEST_F(ServiceE2eTest, HelpExitsZeroAndPrintsNothing) {
    for (const std::string option : {"--help", "-h"}) {
        ChildProcess& process = start({option, "--bogus"});

        const ExitStatus status = finish(process);

        EXPECT_TRUE(status.exited_with(0)) << option << ": " << status.describe();
        EXPECT_EQ(process.standard_error(), "") << option;
        EXPECT_EQ(process.standard_output(), "") << option;
    }
}

TEST_F(ServiceE2eTest, UnknownArgumentExitsOneWithoutAMessage) {
    ChildProcess& process = start({"--bogus", "--help"});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    EXPECT_EQ(process.standard_error(), "");
    EXPECT_EQ(process.standard_output(), "");
}

TEST_F(ServiceE2eTest, ConfigWithoutValueExitsOne) {
    ChildProcess& process = start({"--config"});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    const std::vector<std::string> lines = process.error_lines();
    ASSERT_EQ(lines.size(), 1u) << process.standard_error();
    EXPECT_TRUE(std::regex_match(
        lines[0], line_pattern("ERROR  ", "app_service\\.cpp",
                               literal("SERVICE: value if not specified for option [--config]"))))
        << lines[0];
}

TEST_F(ServiceE2eTest, PortOutOfRangeInTheFileExitsOne) {
    const std::string config = directory.write_file("writer.conf", "port = 65536\n");
    ChildProcess& process = start({"--config", config});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    EXPECT_TRUE(has_line(
        process.error_lines(),
        line_pattern("ERROR  ", "configuration\\.cpp",
                     literal("CONFIGURATION: failed to set option [port] to [65536]: unexpected "
                             "value format"))))
        << process.standard_error();
}

TEST_F(ServiceE2eTest, ArgsOverrideTheFileAndTheServiceExitsZero) {
    const std::string config = directory.write_file("writer.conf", "port = 5000\n");
    ChildProcess& process = start({"--config", config, "--args", "port=6000"});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<std::string> lines = process.error_lines();
    const long from_file = line_index(lines, "CONFIGURATION: reading from file [" + config + "]");
    const long file_port = line_index(lines, "CONFIGURATION: option [port] is set to [5000]");
    const long from_args = line_index(lines, "CONFIGURATION: reading from args: port=6000");
    const long args_port = line_index(lines, "CONFIGURATION: option [port] is set to [6000]");
    EXPECT_GE(from_file, 0) << process.standard_error();
    EXPECT_GT(file_port, from_file);
    EXPECT_GT(from_args, file_port);
    EXPECT_GT(args_port, from_args);
}

TEST_F(ServiceE2eTest, MissingConfigurationFileFallsBackToDefaults) {
    const std::string missing = (directory.path() / "missing.conf").string();
    ChildProcess& process = start({"--config", missing});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_TRUE(has_line(
        process.error_lines(),
        line_pattern("INFO   ", "configuration\\.cpp",
                     literal("CONFIGURATION: file is not specified, default values are used"))))
        << process.standard_error();
}

TEST_F(ServiceE2eTest, StartUpLinesNameThePathArgumentsVersionAndMainThread) {
    const std::string config = directory.write_file("writer.conf", "");
    ChildProcess& process = start({"--config", config, "--args", "port=6000"});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<std::string> lines = process.error_lines();
    const std::string main_thread =
        "SERVICE: [quillmarwriter] main thread [" + std::to_string(process.pid()) + "] ";
    const std::vector<std::regex> expected_in_order = {
        line_pattern("SYSTEM ", "app_service\\.cpp",
                     literal("SERVICE: exec path: " + std::string(QM_BINARY_PATH))),
        line_pattern(
            "SYSTEM ", "app_service\\.cpp",
            literal("SERVICE: exec args: [--config] [" + config + "] [--args] [port=6000]")),
        line_pattern("SYSTEM ", "service\\.cpp",
                     R"(build version: "\d{6}:\d{6} [0-9a-f]{16}@production")"),
        line_pattern("SYSTEM ", "app_service\\.cpp", literal(main_thread + "started")),
        line_pattern("SYSTEM ", "app_service\\.cpp", literal(main_thread + "stopped")),
    };
    ASSERT_GE(lines.size(), expected_in_order.size()) << process.standard_error();
    EXPECT_TRUE(std::regex_match(lines[0], expected_in_order[0])) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], expected_in_order[1])) << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], expected_in_order[2])) << lines[2];
    EXPECT_TRUE(std::regex_match(lines[3], expected_in_order[3])) << lines[3];
    EXPECT_TRUE(std::regex_match(lines.back(), expected_in_order[4])) << lines.back();
}

TEST_F(ServiceE2eTest, ForegroundNamesButDoesNotWriteThePidFile) {
    ChildProcess& process = start(
        {"--config", (directory.path() / "missing.conf").string(), "--pid-file", "relative.pid"},
        directory.path().string());

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::string pid_file = (directory.path() / "relative.pid").string();
    EXPECT_GE(line_index(process.error_lines(), "SERVICE:  pid file: " + pid_file), 0)
        << process.standard_error();
    EXPECT_FALSE(std::filesystem::exists(pid_file));
}

// Daemon mode: the test is the subreaper, so the daemon child is re-parented to it and its exit
// status can be read; records sent to /dev/log are read by the test's own listener when the
// machine has no system logger.
class DaemonE2eTest : public ServiceE2eTest {
protected:
    // The identity and pid that a record of one process carries (after the priority and the time
    // stamp that the system-log client adds).
    static std::string from(pid_t pid) { return "quillmarwriter[" + std::to_string(pid) + "]: "; }

    OrphanReaper reaper;
    SyslogListener syslog;
};

TEST_F(DaemonE2eTest, ParentExitsZeroAndTheDaemonLogsToTheSystemLog) {
    const std::string config = directory.write_file("writer.conf", "port = 5000\n");
    // A relative pid file is made absolute before the daemon changes into /tmp.
    ChildProcess& parent = start({"--daemon", "--pid-file", "daemon.pid", "--config", config},
                                 directory.path().string());
    const std::filesystem::path pid_file = directory.path() / "daemon.pid";

    const ExitStatus parent_status = finish(parent);
    ASSERT_TRUE(poll_until([&] { return !read_file(pid_file).empty(); }, TIMEOUT)) << "no pid file";
    const pid_t daemon = static_cast<pid_t>(std::stol(read_file(pid_file)));
    // The daemon is the test's child now: it ends by itself once its configuration is loaded.
    const std::optional<ExitStatus> daemon_status = reaper.wait_for(daemon, TIMEOUT);

    EXPECT_TRUE(parent_status.exited_with(0)) << parent_status.describe();
    EXPECT_NE(daemon, parent.pid());
    ASSERT_TRUE(daemon_status.has_value()) << "the daemon did not end";
    EXPECT_TRUE(daemon_status->exited_with(0)) << daemon_status->describe();
    // Every line goes to the system log, none to standard error or output.
    EXPECT_EQ(parent.standard_error(), "");
    EXPECT_EQ(parent.standard_output(), "");

    if (!syslog.available()) {
        GTEST_SKIP() << "/dev/log belongs to a system logger; its records are not checked";
    }
    const std::string main_thread =
        "SERVICE: [quillmarwriter] main thread [" + std::to_string(daemon) + "] ";
    ASSERT_TRUE(syslog.wait_for_record(main_thread + "stopped", TIMEOUT));
    const std::vector<std::string> records = syslog.records();
    // The parent's start-up lines, then the daemon's, each from its own pid.
    const std::vector<std::string> expected_in_order = {
        from(parent.pid()) + "SYSTEM  | app_service.cpp:",
        from(parent.pid()) + "SYSTEM  | app_service.cpp:",
        from(parent.pid()) + "SYSTEM  | app_service.cpp:",
        from(parent.pid()) + "SYSTEM  | service.cpp:",
        from(parent.pid()) + "SYSTEM  | app_daemon.cpp:",
        from(daemon) + "SYSTEM  | app_service.cpp:",
        from(daemon) + "SYSTEM  | configuration.cpp:",
        from(daemon) + "SYSTEM  | configuration.cpp:",
        from(daemon) + "SYSTEM  | app_service.cpp:",
    };
    const std::vector<std::string> texts_in_order = {
        "SERVICE:  pid file: " + pid_file.string() + "\n",
        "SERVICE: exec path: " + std::string(QM_BINARY_PATH) + "\n",
        "SERVICE: exec args: [--daemon] [--pid-file] [daemon.pid] [--config] [" + config + "]\n",
        "build version: \"",
        "DAEMON: starting application in daemon mode\n",
        main_thread + "started\n",
        "CONFIGURATION: reading from file [" + config + "]\n",
        "CONFIGURATION: option [port] is set to [5000]\n",
        main_thread + "stopped\n",
    };
    ASSERT_EQ(records.size(), expected_in_order.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        // SYSTEM is sent as LOG_USER with LOG_NOTICE: priority 13.
        EXPECT_EQ(records[i].rfind("<13>", 0), 0u) << records[i];
        EXPECT_NE(records[i].find(expected_in_order[i]), std::string::npos) << records[i];
        EXPECT_NE(records[i].find(texts_in_order[i]), std::string::npos) << records[i];
    }
}

TEST_F(DaemonE2eTest, PidFileInAMissingDirectoryEndsTheDaemonWithOne) {
    const std::string pid_file = (directory.path() / "missing" / "daemon.pid").string();
    ChildProcess& parent = start({"--daemon", "--pid-file", pid_file, "--config",
                                  (directory.path() / "missing.conf").string()});

    const ExitStatus parent_status = finish(parent);
    const std::optional<OrphanReaper::Reaped> daemon = reaper.wait_any(TIMEOUT);

    EXPECT_TRUE(parent_status.exited_with(0)) << parent_status.describe();
    ASSERT_TRUE(daemon.has_value()) << "the daemon did not end";
    EXPECT_TRUE(daemon->status.exited_with(1)) << daemon->status.describe();
    EXPECT_FALSE(std::filesystem::exists(pid_file));
    EXPECT_EQ(parent.standard_error(), "");

    if (!syslog.available()) {
        GTEST_SKIP() << "/dev/log belongs to a system logger; its records are not checked";
    }
    // LOG_USER with LOG_ERR: priority 11.
    EXPECT_TRUE(syslog.wait_for_record(from(daemon->pid) + "ERROR   | app_daemon.cpp:", TIMEOUT));
    const std::vector<std::string> records = syslog.records();
    const std::string expected = "DAEMON: failed to open pid file \"" + pid_file +
                                 "\"; error [2]: No such file or directory\n";
    const auto failure = std::find_if(records.begin(), records.end(), [&](const std::string& r) {
        return r.find(expected) != std::string::npos;
    });
    ASSERT_NE(failure, records.end());
    EXPECT_EQ(failure->rfind("<11>", 0), 0u) << *failure;
    // The daemon ended before its main thread started.
    for (const std::string& record : records) {
        EXPECT_EQ(record.find("main thread"), std::string::npos) << record;
    }
}

}  // namespace
}  // namespace qm::test
