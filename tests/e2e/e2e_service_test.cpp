// The recorder binary's start-up as a user sees it: command line, configuration loading, log
// lines, exit statuses and daemon mode.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <regex>

#include "media/packet_encoder.hpp"
#include "orphan_reaper.hpp"
#include "recorder_e2e.hpp"
#include "syslog_listener.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;
namespace {

using ServiceE2eTest = RecorderE2eTest;

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

TEST_F(ServiceE2eTest, ArgsOverrideTheFile) {
    const std::uint16_t file_port = pick_port();
    const std::uint16_t args_port = pick_port();
    ASSERT_NE(file_port, args_port);
    const std::string config =
        directory.write_file("writer.conf", "port = " + std::to_string(file_port) +
                                                "\nstorage = " + storage().string() + "\n");
    ChildProcess& process =
        start({"--config", config, "--args", "port=" + std::to_string(args_port)});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();

    // The recorder listens on the port of the "--args" assignment.
    send(encode_terminate());
    ASSERT_TRUE(process.wait_for_line("TERM  | mt: ", TIMEOUT)) << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<std::string> lines = process.error_lines();
    const long from_file = line_index(lines, "CONFIGURATION: reading from file [" + config + "]");
    const long file_port_set = line_index(
        lines, "CONFIGURATION: option [port] is set to [" + std::to_string(file_port) + "]");
    const long from_args =
        line_index(lines, "CONFIGURATION: reading from args: port=" + std::to_string(args_port));
    const long args_port_set = line_index(
        lines, "CONFIGURATION: option [port] is set to [" + std::to_string(args_port) + "]");
    EXPECT_GE(from_file, 0) << process.standard_error();
    EXPECT_GT(file_port_set, from_file);
    EXPECT_GT(from_args, file_port_set);
    EXPECT_GT(args_port_set, from_args);
}

TEST_F(ServiceE2eTest, MissingConfigurationFileFallsBackToTheDefaultsWhichNameNoStorage) {
    const std::string missing = (directory.path() / "missing.conf").string();
    ChildProcess& process = start({"--config", missing});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    const std::vector<LogLine> lines = log_lines(process);
    const long defaults =
        text_index(lines, "CONFIGURATION: file is not specified, default values are used");
    const long no_storage = text_index(lines, "SERVICE: storage path must be specified");
    ASSERT_GE(defaults, 0) << process.standard_error();
    EXPECT_EQ(lines[defaults].level, "INFO");
    EXPECT_GT(no_storage, defaults) << process.standard_error();
}

TEST_F(ServiceE2eTest, StartUpLinesNameThePathArgumentsVersionAndMainThread) {
    const std::string config = directory.write_file("writer.conf", "");
    const std::string args = storage_and_port();
    ChildProcess& process = start({"--config", config, "--args", args});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();

    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<std::string> lines = process.error_lines();
    const std::string main_thread =
        "SERVICE: [quillmarwriter] main thread [" + std::to_string(process.pid()) + "] ";
    const std::vector<std::regex> expected_in_order = {
        line_pattern("SYSTEM ", "app_service\\.cpp",
                     literal("SERVICE: exec path: " + std::string(QM_BINARY_PATH))),
        line_pattern(
            "SYSTEM ", "app_service\\.cpp",
            literal("SERVICE: exec args: [--config] [" + config + "] [--args] [" + args + "]")),
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
    ChildProcess& process = start({"--config", (directory.path() / "missing.conf").string(),
                                   "--pid-file", "relative.pid", "--args", storage_and_port()},
                                  directory.path().string());
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();
    const std::string pid_file = (directory.path() / "relative.pid").string();
    EXPECT_FALSE(std::filesystem::exists(pid_file)) << "written while running";

    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
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

    // Waits until the daemon receives: its packet reader's record when the records can be read,
    // otherwise its second thread (the packet reader, started after the socket and the signal
    // handlers).
    bool wait_daemon_receiving(pid_t daemon) {
        if (syslog.available()) {
            return syslog.wait_for_record(from(daemon) + "SYSTEM  | media_packet_reader.cpp:",
                                          TIMEOUT);
        }
        const std::filesystem::path tasks = "/proc/" + std::to_string(daemon) + "/task";
        return poll_until(
            [&] {
                std::error_code error;
                std::filesystem::directory_iterator task(tasks, error);
                std::size_t count = 0;
                for (; !error && task != std::filesystem::directory_iterator();
                     task.increment(error)) {
                    ++count;
                }
                return count >= 2;
            },
            TIMEOUT);
    }

    OrphanReaper reaper;
    SyslogListener syslog;
};

TEST_F(DaemonE2eTest, ParentExitsZeroAndTheDaemonLogsToTheSystemLogUntilStopped) {
    const std::uint16_t chosen = pick_port();
    const std::string config =
        directory.write_file("writer.conf", "port = " + std::to_string(chosen) +
                                                "\nstorage = " + storage().string() + "\n");
    // A relative pid file is made absolute before the daemon changes into /tmp.
    ChildProcess& parent = start({"--daemon", "--pid-file", "daemon.pid", "--config", config},
                                 directory.path().string());
    const std::filesystem::path pid_file = directory.path() / "daemon.pid";

    const ExitStatus parent_status = finish(parent);
    ASSERT_TRUE(poll_until([&] { return !read_file(pid_file).empty(); }, TIMEOUT)) << "no pid file";
    const pid_t daemon = static_cast<pid_t>(std::stol(read_file(pid_file)));
    // The daemon is the test's child now, and runs until it is told to stop.
    ASSERT_TRUE(wait_daemon_receiving(daemon));
    ASSERT_EQ(::kill(daemon, SIGTERM), 0);
    const std::optional<ExitStatus> daemon_status = reaper.wait_for(daemon, TIMEOUT);

    EXPECT_TRUE(parent_status.exited_with(0)) << parent_status.describe();
    EXPECT_NE(daemon, parent.pid());
    ASSERT_TRUE(daemon_status.has_value()) << "the daemon did not end";
    EXPECT_TRUE(daemon_status->exited_with(0)) << daemon_status->describe();
    EXPECT_TRUE(std::filesystem::is_directory(storage()));
    // Every line goes to the system log, none to standard error or output.
    EXPECT_EQ(parent.standard_error(), "");
    EXPECT_EQ(parent.standard_output(), "");

    if (!syslog.available()) {
        GTEST_SKIP() << "/dev/log belongs to a system logger; its records are not checked";
    }
    const std::string main_thread =
        "SERVICE: [quillmarwriter] main thread [" + std::to_string(daemon) + "] ";
    ASSERT_TRUE(syslog.wait_for_record(main_thread + "stopped", TIMEOUT));
    std::vector<std::string> records = syslog.records();
    // SYSTEM is sent as LOG_USER with LOG_NOTICE: priority 13; INFO with LOG_INFO: 14.
    struct Expected {
        std::string priority;
        std::string place;
        std::string text;
    };
    const auto parent_system = [&](const std::string& file, const std::string& text) {
        return Expected{"<13>", from(parent.pid()) + "SYSTEM  | " + file + ":", text};
    };
    const auto daemon_system = [&](const std::string& file, const std::string& text) {
        return Expected{"<13>", from(daemon) + "SYSTEM  | " + file + ":", text};
    };
    // The parent's start-up lines, then the daemon's, each from its own pid.
    const std::vector<Expected> expected_in_order = {
        parent_system("app_service.cpp", "SERVICE:  pid file: " + pid_file.string() + "\n"),
        parent_system("app_service.cpp",
                      "SERVICE: exec path: " + std::string(QM_BINARY_PATH) + "\n"),
        parent_system("app_service.cpp",
                      "SERVICE: exec args: [--daemon] [--pid-file] "
                      "[daemon.pid] [--config] [" +
                          config + "]\n"),
        parent_system("service.cpp", "build version: \""),
        parent_system("app_daemon.cpp", "DAEMON: starting application in daemon mode\n"),
        daemon_system("app_service.cpp", main_thread + "started\n"),
        daemon_system("configuration.cpp", "CONFIGURATION: reading from file [" + config + "]\n"),
        daemon_system("configuration.cpp",
                      "CONFIGURATION: option [port] is set to [" + std::to_string(chosen) + "]\n"),
        daemon_system("configuration.cpp",
                      "CONFIGURATION: option [storage] is set to [" + storage().string() + "]\n"),
        daemon_system("storage_manager.cpp", "STORAGE_MANAGER: cleanup started\n"),
        daemon_system("storage_manager.cpp", "STORAGE_MANAGER: space: used ("),
        daemon_system("storage_manager.cpp", "STORAGE_MANAGER: cleanup stopped\n"),
        daemon_system("media_buffer_pool.cpp",
                      "MEDIA_BUFFER_POOL: allocated (4000) buffers of (64128) bytes each including "
                      "(64088) bytes of media part\n"),
        daemon_system("media_packet_reader.cpp", "] started\n"),
        daemon_system("app_service.cpp", "SERVICE: signal 15 has been received\n"),
        daemon_system("app_service.cpp", "SERVICE: application stop has been requested\n"),
        Expected{"<14>",
                 from(daemon) + "INFO    | net_socket.cpp:", "]: system interrupted call\n"},
        daemon_system("media_packet_reader.cpp",
                      "PACKETS_READER: thread [" + std::to_string(daemon) + "] stopped\n"),
        daemon_system("media_writer.cpp",
                      "MEDIA_WRITER: thread [" + std::to_string(daemon) + "] stopped\n"),
        daemon_system("storage_manager.cpp",
                      "STORAGE_MANAGER: received stop indication, running: false\n"),
        daemon_system("storage_manager.cpp",
                      "STORAGE_MANAGER: thread [" + std::to_string(daemon) + "] stopped\n"),
        daemon_system("statistic_service.cpp",
                      "STATISTIC_SERVICE: thread [" + std::to_string(daemon) + "] stopped\n"),
        daemon_system("app_service.cpp", main_thread + "stopped\n"),
    };
    // The worker threads log their own start whenever they get to run, and the report thread
    // its first report: those records are checked apart from the ordered ones.
    const auto take_record = [&](const std::string& place, const std::string& text) {
        const auto found = std::find_if(records.begin(), records.end(), [&](const std::string& r) {
            return r.find(from(daemon) + "SYSTEM  | " + place) != std::string::npos &&
                   r.find(text) != std::string::npos;
        });
        EXPECT_NE(found, records.end()) << place << text;
        if (found != records.end()) {
            records.erase(found);
        }
    };
    take_record("media_writer.cpp:", "MEDIA_WRITER: thread [");
    take_record("statistic_service.cpp:", "STATISTIC_SERVICE: thread [");
    take_record("storage_manager.cpp:", "STORAGE_MANAGER: thread [");
    take_record("statistic_service.cpp:",
                " quillmarwriter:" + std::to_string(chosen) + " statistic ");
    ASSERT_EQ(records.size(), expected_in_order.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].rfind(expected_in_order[i].priority, 0), 0u) << records[i];
        EXPECT_NE(records[i].find(expected_in_order[i].place), std::string::npos) << records[i];
        EXPECT_NE(records[i].find(expected_in_order[i].text), std::string::npos) << records[i];
    }
}

// Where the daemon's standard output and error go: its "_daemon.log" file, or /dev/null when that
// cannot be opened (its directory is missing on a machine without the package), never a free
// descriptor that the next file opened would take.
TEST_F(DaemonE2eTest, OutputAndErrorGoToTheDaemonLogOrToDevNull) {
    const std::filesystem::path log_directory = "/var/log/varnholt/quillmar";
    const std::string expected = std::filesystem::is_directory(log_directory)
                                     ? (log_directory / "writer_daemon.log").string()
                                     : "/dev/null";
    const std::filesystem::path pid_file = directory.path() / "daemon.pid";
    const std::string config =
        directory.write_file("writer.conf", "port = " + std::to_string(pick_port()) +
                                                "\nstorage = " + storage().string() + "\n");
    ChildProcess& parent = start({"--daemon", "--pid-file", pid_file.string(), "--config", config});
    ASSERT_TRUE(finish(parent).exited_with(0));
    ASSERT_TRUE(poll_until([&] { return !read_file(pid_file).empty(); }, TIMEOUT)) << "no pid file";
    const pid_t daemon = static_cast<pid_t>(std::stol(read_file(pid_file)));
    ASSERT_TRUE(wait_daemon_receiving(daemon));

    const std::string descriptors = "/proc/" + std::to_string(daemon) + "/fd/";
    EXPECT_EQ(std::filesystem::read_symlink(descriptors + "0").string(), "/dev/null");
    EXPECT_EQ(std::filesystem::read_symlink(descriptors + "1").string(), expected);
    EXPECT_EQ(std::filesystem::read_symlink(descriptors + "2").string(), expected);

    ASSERT_EQ(::kill(daemon, SIGTERM), 0);
    const std::optional<ExitStatus> status = reaper.wait_for(daemon, TIMEOUT);
    ASSERT_TRUE(status.has_value()) << "the daemon did not end";
    EXPECT_TRUE(status->exited_with(0)) << status->describe();
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
