// What operators run the recorder with: a service manager listening on NOTIFY_SOCKET, a metrics
// file scraped by monitoring, and an orderly stop that keeps every accepted frame.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "media/packet_encoder.hpp"
#include "numbered_legs.hpp"
#include "recorder_e2e.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;

namespace {

// The service manager's end of NOTIFY_SOCKET.
class NotifyListener {
public:
    explicit NotifyListener(std::filesystem::path path) : m_path(std::move(path)) {
        m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~NotifyListener() { ::close(m_fd); }

    std::string variable() const { return "NOTIFY_SOCKET=" + m_path.string(); }

    // Takes what has arrived; each message once.
    void collect() {
        char buffer[512];
        ssize_t size = 0;
        while ((size = ::recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
            messages.emplace_back(buffer, static_cast<std::size_t>(size));
        }
    }

    long index_of(const std::string& prefix) const {
        for (std::size_t i = 0; i < messages.size(); ++i) {
            if (messages[i].rfind(prefix, 0) == 0) {
                return static_cast<long>(i);
            }
        }
        return -1;
    }

    std::vector<std::string> messages;

private:
    std::filesystem::path m_path;
    int m_fd = -1;
};

class OperationsE2eTest : public RecorderE2eTest {};

TEST_F(OperationsE2eTest, ServiceManagerHearsReadyOnlyOnceThePortTakesPacketsThenStatusAndStop) {
    NotifyListener manager(directory.path() / "notify");
    const std::uint16_t chosen = pick_port();
    const std::string config =
        directory.write_file("writer.conf", "storage = " + storage().string() +
                                                "\nport = " + std::to_string(chosen) + "\n");
    ChildProcess& process = start({"--config", config}, {}, {manager.variable()});

    // At the moment READY=1 arrives the socket is bound, so what is sent from then on is queued
    // for the packet reader, whose thread has been created (it logs its start line when it first
    // runs, which may come a moment after READY=1).
    bool bound_when_ready = false;
    ASSERT_TRUE(poll_until(
        [&] {
            manager.collect();
            if (manager.index_of("READY=1") < 0) {
                return false;
            }
            bound_when_ready = udp_queue(chosen).has_value();
            return true;
        },
        TIMEOUT, std::chrono::milliseconds(1)))
        << process.standard_error();
    EXPECT_TRUE(bound_when_ready);
    EXPECT_TRUE(wait_receiving(process)) << process.standard_error();
    // A report period later, the status.
    ASSERT_TRUE(poll_until(
        [&] {
            manager.collect();
            return manager.messages.size() >
                   static_cast<std::size_t>(manager.index_of("READY=1")) + 1;
        },
        std::chrono::seconds(12)));
    const ExitStatus status = stop(process);
    ASSERT_TRUE(poll_until(
        [&] {
            manager.collect();
            return manager.index_of("STOPPING=1") >= 0;
        },
        TIMEOUT));

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const long ready = manager.index_of("READY=1");
    const long stopping = manager.index_of("STOPPING=1");
    EXPECT_LT(ready, stopping);
    const std::regex status_line(
        R"(STATUS=0 sessions, 0 datagrams, 0 dropped by the system, 0 media bytes dropped)");
    for (std::size_t i = 0; i < manager.messages.size(); ++i) {
        if (static_cast<long>(i) != ready && static_cast<long>(i) != stopping) {
            EXPECT_TRUE(std::regex_match(manager.messages[i], status_line)) << manager.messages[i];
        }
    }
    // One status per report period, each sent right after that period's report is logged; the
    // process has ended, so every one of them has been collected.
    const std::string title = " quillmarwriter:" + std::to_string(chosen) + " statistic ";
    const std::vector<std::string> lines = process.error_lines();
    const auto reports = std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(title) != std::string::npos;
    });
    EXPECT_EQ(manager.messages.size(), static_cast<std::size_t>(reports) + 2)
        << process.standard_error();
    EXPECT_EQ(manager.messages.back(), "STOPPING=1");
}

TEST_F(OperationsE2eTest, WithoutNotifySocketNothingChanges) {
    ChildProcess& process = start_recorder();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    for (const LogLine& line : log_lines(process)) {
        EXPECT_TRUE(line.level != "ERROR" && line.level != "WARNING") << line.text;
    }
}

// The values of the last framed report's rows, in order.
std::vector<std::uint64_t> last_report_values(const ChildProcess& process) {
    static const std::regex row(R"(^\* [a-z' ()]+\.*: ([0-9]+).*\*$)");
    std::vector<std::string> lines = process.error_lines();
    std::vector<std::uint64_t> values;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        if (line->find("| SYSTEM  | statistic_service.cpp:") != std::string::npos &&
            line->find(" statistic ") != std::string::npos) {
            // Up to the closing line of asterisks.
            for (auto next = line.base(); next != lines.end() && *next != std::string(86, '*');
                 ++next) {
                std::smatch match;
                if (std::regex_match(*next, match, row)) {
                    values.push_back(std::stoull(match[1]));
                }
            }
            break;
        }
    }
    return values;
}

// The metrics file as Debian's Prometheus client library parses it: "name type value" per
// sample, in file order.
std::vector<std::string> parsed_metrics(const std::filesystem::path& file) {
    const std::string script =
        "import sys\n"
        "from prometheus_client.parser import text_string_to_metric_families\n"
        "for family in text_string_to_metric_families(open(sys.argv[1]).read()):\n"
        "    for sample in family.samples:\n"
        "        print(sample.name, family.type, int(sample.value))\n";
    const std::filesystem::path program = file.parent_path() / "parse_metrics.py";
    std::ofstream(program) << script;
    const std::filesystem::path output = file.parent_path() / "parsed.txt";
    // The Prometheus client library Debian packages for its own interpreter.
    const int status = std::system(
        ("/usr/bin/python3 " + program.string() + " " + file.string() + " > " + output.string())
            .c_str());
    EXPECT_EQ(status, 0);
    return split_lines(read_file(output));
}

TEST_F(OperationsE2eTest, MetricsFileShowsTheCountersOfTheReportOfItsPeriod) {
    const std::filesystem::path metrics = directory.path() / "metrics" / "quillmarwriter.prom";
    std::filesystem::create_directories(metrics.parent_path());
    ChildProcess& process = start_recorder("metrics_file = " + metrics.string() + "\n");
    StartFields start;
    send(encode_start(start));
    for (std::uint32_t seq = 1; seq <= 20; ++seq) {
        DataFields data;
        data.seq = seq;
        data.off = (seq - 1) * 4;
        send(encode_data(data));
    }
    send(encode_terminate({start.header}));
    send({0x01, 0x02, 0x03});  // too short: counted as dropped
    std::vector<std::uint8_t> bad_marker = encode_terminate();
    bad_marker[0] = 0x00;
    send(bad_marker);
    ASSERT_TRUE(wait_drained());
    // A report that counted all of it (rows 27, 30 and 36: too short, bad marker, data), and the
    // metrics file of that period, written right after the report.
    ASSERT_TRUE(poll_until(
        [&] {
            const std::vector<std::uint64_t> values = last_report_values(process);
            return values.size() == 38 && values[27] == 1 && values[30] == 1 && values[36] == 20;
        },
        std::chrono::seconds(12)))
        << process.standard_error();
    ASSERT_TRUE(poll_until(
        [&] {
            const std::vector<std::string> parsed = parsed_metrics(metrics);
            return std::find(parsed.begin(), parsed.end(),
                             "quillmarwriter_packet_data_type_total counter 20") != parsed.end();
        },
        TIMEOUT));

    const std::vector<std::string> samples = parsed_metrics(metrics);
    const std::vector<std::uint64_t> report = last_report_values(process);
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    ASSERT_EQ(report.size(), 38u) << process.standard_error();
    ASSERT_EQ(samples.size(), report.size() + 7);
    for (std::size_t i = 0; i < report.size(); ++i) {
        std::istringstream fields(samples[i]);
        std::string name, type;
        std::uint64_t value = 0;
        fields >> name >> type >> value;
        EXPECT_EQ(value, report[i]) << name;
        EXPECT_EQ(name.rfind("quillmarwriter_", 0), 0u) << name;
        EXPECT_EQ(type == "counter", name.size() > 6 && name.substr(name.size() - 6) == "_total")
            << name;
    }
    EXPECT_EQ(samples[37].substr(0, samples[37].find(' ')),
              "quillmarwriter_packet_ctrl_type_total");
    EXPECT_EQ(samples[38], "quillmarwriter_unwritten_bytes_total counter 0");
    EXPECT_EQ(samples[39], "quillmarwriter_repair_cut_bytes_total counter 0");
    EXPECT_EQ(samples[40], "quillmarwriter_repair_headers_total counter 0");
    EXPECT_EQ(samples[41], "quillmarwriter_leg_summary_errors_total counter 0");
    EXPECT_EQ(samples[42].rfind("quillmarwriter_kernel_drops_total counter 0", 0), 0u);
    EXPECT_EQ(samples[43].rfind("quillmarwriter_resident_memory_bytes gauge ", 0), 0u);
    EXPECT_EQ(samples[44], "quillmarwriter_refused_datagrams_total counter 0");
    EXPECT_NE(std::find(samples.begin(), samples.end(),
                        "quillmarwriter_packet_data_type_total counter 20"),
              samples.end());
    EXPECT_NE(std::find(samples.begin(), samples.end(),
                        "quillmarwriter_packet_dropped_by_min_length_total counter 1"),
              samples.end());
    EXPECT_NE(std::find(samples.begin(), samples.end(),
                        "quillmarwriter_packet_rejected_by_bad_marker_total counter 1"),
              samples.end());
}

// 100 legs open at the stop, each with two full buffers written and a third partly filled.
class FlushOnStopE2eTest : public RecorderE2eTest {
protected:
    static constexpr std::uint32_t LEGS = 100;
    static constexpr std::uint32_t FRAMES = 30;
    // A buffer holds 4000 media bytes and room for the 48-byte file header: 12 frames of 332
    // bytes each, the first buffer's after the header. 24 frames are in full buffers, 6 in the
    // open one.
    static constexpr std::uint32_t FRAMES_IN_FULL_BUFFERS = 24;

    // Sends every leg's start and frames, no terminate, and waits until the recorder has taken
    // every data packet (its trace line is the proof).
    void send_open_legs(const ChildProcess& process) {
        for (std::uint32_t leg = 0; leg < LEGS; ++leg) {
            send(encode_start(numbered_start(leg)));
        }
        for (std::uint32_t seq = 1; seq <= FRAMES; ++seq) {
            for (std::uint32_t leg = 0; leg < LEGS; ++leg) {
                send(encode_data(numbered_frame(leg, seq)));
            }
            ASSERT_TRUE(wait_drained());
        }
        ASSERT_TRUE(poll_until(
            [&] {
                std::size_t seen = 0;
                for (const std::string& line : process.error_lines()) {
                    seen += line.find("| DATA  | ") != std::string::npos ? 1 : 0;
                }
                return seen == LEGS * FRAMES;
            },
            TIMEOUT));
    }

    // How many legs' files hold exactly their first `frames` frames per side.
    std::size_t legs_holding(std::uint32_t frames) const {
        std::size_t legs = 0;
        for (std::uint32_t leg = 0; leg < LEGS; ++leg) {
            legs +=
                read_file(numbered_file_path(storage(), leg)) == numbered_file(leg, frames) ? 1 : 0;
        }
        return legs;
    }

    static constexpr const char* SETTINGS = "log_level = TRACE\nmedia_buffer_size = 4000\n";
};

TEST_F(FlushOnStopE2eTest, StopWithFlushKeepsEveryAcceptedFrameOfEveryOpenLeg) {
    ChildProcess& process =
        start_recorder(std::string(SETTINGS) + "flush_open_sessions_on_stop = true\n");
    send_open_legs(process);

    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(legs_holding(FRAMES), LEGS);
    EXPECT_GE(
        text_index(log_lines(process), "SERVICE: 100 open sessions handed to the writer at stop"),
        0);
}

TEST_F(FlushOnStopE2eTest, StopWithoutFlushEndsEveryOpenLegAtItsLastFullBuffer) {
    ChildProcess& process = start_recorder(SETTINGS);
    send_open_legs(process);

    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(legs_holding(FRAMES_IN_FULL_BUFFERS), LEGS);
}

}  // namespace
}  // namespace qm::test
