// The running recorder as a media source and an operator see it: the log lines of the packets it
// receives over loopback, its answers to signals, and the start-up failures of the recording side.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "media/packet_encoder.hpp"
#include "net/net_socket.hpp"
#include "recorder_e2e.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;
namespace {

const std::string UUID_TEXT = "00112233-4455-6677-8899-aabbccddeeff";

using RecorderPacketE2eTest = RecorderE2eTest;

TEST_F(RecorderPacketE2eTest, StartControlAndTerminateLogTheirSystemLines) {
    ChildProcess& process = start_recorder();
    StartFields start;
    start.header.flags = 0xC001;
    start.rule = 42;
    start.ft = {0xE4, 0x28};
    ControlFields control_with_ft;
    control_with_ft.header.mt = 1001;
    control_with_ft.ft = std::array<std::uint8_t, 2>{0x14, 0x04};
    ControlFields control;
    control.header.mt = 1002;
    control.header.flags = 0x0300;
    TerminateFields terminate;
    terminate.header.mt = 1003;
    terminate.header.flags = 0x0500;

    send(encode_start(start));
    // At the default threshold (INFO) a data packet is handled without a line.
    send(encode_data());
    send(encode_control(control_with_ft));
    send(encode_control(control));
    send(encode_terminate(terminate));
    ASSERT_TRUE(process.wait_for_line("TERM  | ", TIMEOUT)) << process.standard_error();

    const std::vector<LogLine> lines = log_lines(process);
    std::vector<std::string> packets = texts(lines, "SYSTEM", "media_packet_reader.cpp");
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ(packets.front().rfind("PACKETS_READER: thread [", 0), 0u) << packets.front();
    packets.erase(packets.begin());
    const std::vector<std::string> expected = {
        "START | mt: 1000, v: 1, f: RN, uuid: " + UUID_TEXT +
            ", ts: 1633954638004211, leg: outbound, call id: call-1@example.org, id: "
            "81985529216486895, sync ts: 1633954638000000, sync mt: 500, ft: RRS-?a, rule: 42",
        "CTRL  | mt: 1001, v: 1, f: 0, uuid: " + UUID_TEXT + ", ft: ---s-A",
        "CTRL  | mt: 1002, v: 1, f: 3, uuid: " + UUID_TEXT,
        "TERM  | mt: 1003, v: 1, f: 5, uuid: " + UUID_TEXT,
    };
    EXPECT_EQ(packets, expected);
    EXPECT_EQ(line_index(process.error_lines(), "DATA  | "), -1);
    // A well-formed leg leaves nothing to warn about.
    for (const LogLine& line : lines) {
        EXPECT_TRUE(line.level != "ERROR" && line.level != "WARNING") << line.text;
    }
    EXPECT_TRUE(stop(process).exited_with(0));
}

TEST_F(RecorderPacketE2eTest, DataPacketLogsItsTraceLineAtTrace) {
    ChildProcess& process = start_recorder("log_level = TRACE\n");
    DataFields data;
    data.header.flags = 0x8001;
    data.header.mt = 1020;
    data.seq = 7;
    data.off = 320;

    send(encode_start());
    send(encode_data(data));
    ASSERT_TRUE(process.wait_for_line("DATA  | ", TIMEOUT)) << process.standard_error();

    EXPECT_EQ(texts(log_lines(process), "TRACE", "media_packet_reader.cpp"),
              std::vector<std::string>{"DATA  | mt: 1020, v: 1, f: S, uuid: " + UUID_TEXT +
                                       ", side: 1, seq: 7, num: 4, off: 320"});
    EXPECT_TRUE(stop(process).exited_with(0));
}

TEST_F(RecorderPacketE2eTest, SecondStartForALiveIdLogsTheCollisionError) {
    ChildProcess& process = start_recorder();
    StartFields second;
    second.call_id = "call-2@example.org";

    send(encode_start());
    send(encode_start(second));
    ASSERT_TRUE(process.wait_for_line("already exists", TIMEOUT)) << process.standard_error();

    const std::vector<LogLine> lines = log_lines(process);
    EXPECT_EQ(texts(lines, "ERROR", "media_session_manager.cpp"),
              std::vector<std::string>{"SESSION_MANAGER: Session " + UUID_TEXT +
                                       " already exists: check call id as this may be a CRC64 "
                                       "collision"});
    const long first_start = line_index(process.error_lines(), "call id: call-1@example.org");
    const long second_start = line_index(process.error_lines(), "call id: call-2@example.org");
    EXPECT_GE(first_start, 0);
    EXPECT_GT(second_start, first_start);
    EXPECT_TRUE(stop(process).exited_with(0));
}

TEST_F(RecorderPacketE2eTest, DataForAnUnknownIdWarnsOnceAndItsNextPacketIsQuiet) {
    ChildProcess& process = start_recorder();
    DataFields first;
    first.header.id = 77;
    first.header.mt = 2000;
    first.seq = 3;
    DataFields next = first;
    next.header.mt = 2020;
    next.seq = 4;
    // Handled after `next` by the same thread, and logged whatever happens to it.
    ControlFields marker;
    marker.header.id = 77;
    marker.header.mt = 2040;

    send(encode_data(first));
    send(encode_data(next));
    send(encode_control(marker));
    ASSERT_TRUE(process.wait_for_line("CTRL  | mt: 2040", TIMEOUT)) << process.standard_error();

    const std::vector<LogLine> lines = log_lines(process);
    EXPECT_EQ(texts(lines, "WARNING", "media_session_manager.cpp"),
              std::vector<std::string>{"DATA  | mt: 2000, uuid: " + UUID_TEXT +
                                       ", side: 0, seq: 3 | unknown session"});
    for (const LogLine& line : lines) {
        EXPECT_TRUE(line.level != "ERROR" &&
                    (line.level != "WARNING" || line.file == "media_session_manager.cpp"))
            << line.text;
    }
    EXPECT_TRUE(stop(process).exited_with(0));
}

TEST_F(RecorderE2eTest, TermWhileIdleStopsAtOnceWithZero) {
    ChildProcess& process = start_recorder();

    const ExitStatus status = stop(process, SIGTERM);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_orderly_stop(process, SIGTERM);
    // The interrupted read is what ends the loop at once, not a timeout: the recorder has none
    // while idle. (bench/qm_stop_benchmarks measures how long the stop takes.)
    EXPECT_TRUE(has_line(
        process.error_lines(),
        line_pattern("INFO   ", "net_socket\\.cpp", R"(SOCKET\[\d+\]: system interrupted call)")));
    // The missing storage directory was created.
    EXPECT_TRUE(std::filesystem::is_directory(storage()));
}

// `ps -L` names every thread of a running recorder: the main thread keeps the program's name (so
// that pidof, pkill and the like still find it), each worker has its own.
TEST_F(RecorderE2eTest, PsListsTheThreadsByName) {
    ChildProcess& recorder = start_recorder();
    ChildProcess& ps = start_program(
        "/usr/bin/ps", {"-L", "-o", "comm=", "-p", std::to_string(recorder.pid())}, {});
    const ExitStatus listed = finish(ps);
    const ExitStatus stopped = stop(recorder);

    EXPECT_TRUE(listed.exited_with(0)) << ps.standard_error();
    std::vector<std::string> names = split_lines(ps.standard_output());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"qm-reader", "qm-statistic", "qm-storage",
                                               "qm-writer", "quillmarwriter"}));
    EXPECT_TRUE(stopped.exited_with(0)) << stopped.describe();
}

class StopSignalE2eTest : public RecorderE2eTest, public ::testing::WithParamInterface<int> {};

TEST_P(StopSignalE2eTest, StopsLikeTerm) {
    ChildProcess& process = start_recorder();

    const ExitStatus status = stop(process, GetParam());

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_orderly_stop(process, GetParam());
}

INSTANTIATE_TEST_SUITE_P(IntAndQuit, StopSignalE2eTest, ::testing::Values(SIGINT, SIGQUIT));

TEST_F(RecorderE2eTest, HangupAndUserSignalsAreLoggedAndTheRecorderGoesOn) {
    ChildProcess& process = start_recorder();
    const std::vector<std::pair<int, std::string>> signals = {
        {SIGHUP, "SERVICE: update has been requested"},
        {SIGUSR1, "SERVICE: user action #1 has been requested"},
        {SIGUSR2, "SERVICE: user action #2 has been requested"},
    };

    for (const auto& [signal, request] : signals) {
        ASSERT_TRUE(process.send_signal(signal));
        ASSERT_TRUE(process.wait_for_line(request, TIMEOUT)) << process.standard_error();
    }
    // Still receiving: a packet sent after the signals is handled.
    send(encode_terminate());
    ASSERT_TRUE(process.wait_for_line("TERM  | ", TIMEOUT)) << process.standard_error();

    const std::vector<LogLine> lines = log_lines(process);
    long previous = -1;
    for (const auto& [signal, request] : signals) {
        const long received =
            text_index(lines, "SERVICE: signal " + std::to_string(signal) + " has been received");
        EXPECT_GT(received, previous) << signal;
        EXPECT_EQ(text_index(lines, request), received + 1) << signal;
        previous = received + 1;
    }
    EXPECT_EQ(text_index(lines, "SERVICE: application stop has been requested"), -1);
    const ExitStatus status = stop(process, SIGTERM);
    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_orderly_stop(process, SIGTERM);
}

using RecorderFailureE2eTest = RecorderE2eTest;

TEST_F(RecorderFailureE2eTest, NoStorageExitsOneBeforeAnyThreadStarts) {
    const std::string config = directory.write_file("writer.conf", "port = 0\n");
    ChildProcess& process = start({"--config", config});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    const std::vector<LogLine> lines = log_lines(process);
    EXPECT_EQ(texts(lines, "ERROR", "service.cpp"),
              std::vector<std::string>{"SERVICE: storage path must be specified"});
    EXPECT_EQ(line_index(process.error_lines(), RECEIVING), -1);
}

TEST_F(RecorderFailureE2eTest, StorageThatIsOrLiesBelowARegularFileExitsOne) {
    const std::filesystem::path file = directory.write_file("plain", "not a directory");
    for (const std::filesystem::path& unusable : {file, file / "recordings"}) {
        ChildProcess& process = start({"--config", (directory.path() / "missing.conf").string(),
                                       "--args", "port=0,storage=" + unusable.string()});

        const ExitStatus status = finish(process);

        EXPECT_TRUE(status.exited_with(1)) << unusable << ": " << status.describe();
        EXPECT_EQ(texts(log_lines(process), "ERROR", "service.cpp"),
                  std::vector<std::string>{
                      "SERVICE: storage path is not a directory or failed to create"})
            << unusable;
        EXPECT_EQ(line_index(process.error_lines(), RECEIVING), -1);
    }
}

TEST_F(RecorderFailureE2eTest, PortInUseExitsOneAfterTheBindError) {
    net::Socket blocker;
    const std::uint16_t taken = pick_port();
    ASSERT_TRUE(blocker.open(taken, 0));
    ChildProcess& process =
        start({"--config", (directory.path() / "missing.conf").string(), "--args",
               "storage=" + storage().string() + ",port=" + std::to_string(taken)});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    const std::vector<std::string> lines = process.error_lines();
    const std::regex bind_error = line_pattern(
        "ERROR  ", "net_socket\\.cpp",
        R"(SOCKET\[\d+\]: failed to bind a socket, error \(98\): Address already in use)");
    const auto bind_failed = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return std::regex_match(line, bind_error);
    });
    ASSERT_NE(bind_failed, lines.end()) << process.standard_error();
    // The cleanup and report threads had been started before the socket was opened: they logged
    // their start (and the report its first report) on their own threads, so before or after the
    // bind error, and they are stopped before the main thread's last line.
    const long cleanup_started = line_index(lines, "STORAGE_MANAGER: thread [");
    EXPECT_GE(cleanup_started, 0) << process.standard_error();
    EXPECT_GE(line_index(lines, "STORAGE_MANAGER: received stop indication, running: false"),
              cleanup_started);
    const long started = line_index(lines, "STATISTIC_SERVICE: thread [");
    const long reported =
        line_index(lines, " quillmarwriter:" + std::to_string(taken) + " statistic ");
    EXPECT_GE(started, 0) << process.standard_error();
    EXPECT_GT(reported, started);
    EXPECT_LT(reported, static_cast<long>(lines.size()) - 2);
    const std::regex report_stopped = line_pattern("SYSTEM ", "statistic_service\\.cpp",
                                                   R"(STATISTIC_SERVICE: thread \[\d+\] stopped)");
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(lines[lines.size() - 2], report_stopped))
        << process.standard_error();
    EXPECT_NE(lines.back().find("SERVICE: [quillmarwriter] main thread ["), std::string::npos);
    EXPECT_EQ(line_index(lines, RECEIVING), -1);
}

TEST_F(RecorderFailureE2eTest, SystemLogLevelEndsTheProcessAbnormally) {
    const std::string config = directory.write_file(
        "writer.conf", "log_level = SYSTEM\nport = 0\nstorage = " + storage().string() + "\n");
    // Any core file lands in the test's directory.
    ChildProcess& process = start({"--config", config}, directory.path().string());

    const ExitStatus status = finish(process);

    EXPECT_FALSE(status.exited) << status.describe();
    EXPECT_EQ(status.signal, SIGABRT) << status.describe();
    EXPECT_NE(
        process.standard_error().find("impossible to set log level stricter than 'error' level"),
        std::string::npos)
        << process.standard_error();
    // Refused before anything else: no storage check, no socket, no thread.
    EXPECT_FALSE(std::filesystem::exists(storage()));
    EXPECT_EQ(line_index(process.error_lines(), RECEIVING), -1);
}

TEST_F(RecorderE2eTest, ExampleConfigurationRunsAndStopsOnInt) {
    ChildProcess& process =
        start({"--config", std::string(QM_SOURCE_DIR) + "/etc/quillmarwriter.conf", "--args",
               storage_and_port()});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();

    const ExitStatus status = stop(process, SIGINT);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_orderly_stop(process, SIGINT);
    for (const LogLine& line : log_lines(process)) {
        EXPECT_TRUE(line.level != "ERROR" && line.level != "WARNING") << line.text;
    }
}

}  // namespace
}  // namespace qm::test
