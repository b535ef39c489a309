// Stop signals as operators and service managers send them: at once after a (detached) start, and
// in a storm of other signals while the recorder logs every packet under a steady flow. None may
// leave the recorder hanging.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "media/packet_encoder.hpp"
#include "net/net_address.hpp"
#include "net/net_socket.hpp"
#include "orphan_reaper.hpp"
#include "recorder_e2e.hpp"
#include "syslog_listener.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int QUICK_STOP_RUNS = 40;

// How the quick-stop runs ended. A stop that lands before the handlers are installed ends the
// process by the signal's default action, which is a stop as well.
struct Outcomes {
    int exited_zero = 0;
    int terminated_by_signal = 0;
    int other = 0;

    void count(const ExitStatus& status) {
        if (status.exited_with(0)) {
            ++exited_zero;
        } else if (!status.exited && status.signal == SIGTERM) {
            ++terminated_by_signal;
        } else {
            ++other;
        }
    }
};

std::ostream& operator<<(std::ostream& out, const Outcomes& outcomes) {
    return out << outcomes.exited_zero << " exited with 0, " << outcomes.terminated_by_signal
               << " ended by SIGTERM before the handlers were installed, " << outcomes.other
               << " otherwise";
}

// Sleeps `delay` with microsecond precision (the poll helper works in milliseconds).
void pause_for(std::chrono::microseconds delay) {
    std::this_thread::sleep_for(delay);
}

// Calls `condition` every 100 us until it holds or `timeout` passes: the quick stops must follow
// what they wait for closely, closer than the harness's millisecond polling.
template <typename Condition>
bool poll_closely(Condition condition, std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        pause_for(100us);
    }
    return true;
}

// The pid in `path`, once the file holds one.
std::optional<pid_t> wait_for_pid(const std::filesystem::path& path,
                                  std::chrono::milliseconds timeout) {
    std::string text;
    if (!poll_closely([&] { return !(text = read_file(path)).empty(); }, timeout)) {
        return std::nullopt;
    }
    return static_cast<pid_t>(std::stol(text));
}

class SignalE2eTest : public RecorderE2eTest {
protected:
    // A small media buffer pool: taking the default 4000 buffers costs each start about a second,
    // long after the moments these tests stop the recorder in, and their runs add up.
    std::string write_config(const std::string& name, const std::string& settings = {}) {
        return directory.write_file(name, "storage = " + storage().string() +
                                              "\nport = " + std::to_string(pick_port()) +
                                              "\nmedia_buffers_count = 64\n" + settings);
    }

    std::mt19937 random{20261122};
};

// A stop ends the recorder in milliseconds; this only tells a hang from a machine so loaded that
// the stop is slow, and is no measure of its speed (bench/ has that).
constexpr auto HANG = std::chrono::seconds(30);

// The hang that this guards against: a stop whose handler interrupted the daemon's syslog() call
// of the configuration echo and then waited for the system log's lock, which its own thread held.
TEST_F(SignalE2eTest, DetachedRecorderStoppedAsSoonAsItsPidFileAppearsAlwaysEnds) {
    OrphanReaper reaper;
    // No other test may listen on /dev/log meanwhile: the daemons' records would land there.
    const DevLogLock dev_log;
    // No listener on /dev/log: on a machine without a system logger every syslog() call fails to
    // connect and falls back to the console, which holds the system log's lock long enough for a
    // stop to land inside it (a handler that logged itself hung in the first run here).
    std::uniform_int_distribution<int> delay_us(0, 5000);
    Outcomes outcomes;
    for (int run = 0; run < QUICK_STOP_RUNS; ++run) {
        const std::string config = write_config("daemon" + std::to_string(run) + ".conf");
        const std::filesystem::path pid_file =
            directory.path() / ("daemon" + std::to_string(run) + ".pid");
        ChildProcess& parent =
            start({"--daemon", "--pid-file", pid_file.string(), "--config", config});

        const std::optional<pid_t> daemon = wait_for_pid(pid_file, TIMEOUT);
        ASSERT_TRUE(daemon.has_value()) << "run " << run << ": no pid file";
        pause_for(std::chrono::microseconds(delay_us(random)));
        ASSERT_EQ(::kill(*daemon, SIGTERM), 0) << "run " << run;
        const std::optional<ExitStatus> ended = reaper.wait_for(*daemon, HANG);

        ASSERT_TRUE(ended.has_value()) << "run " << run << ": the daemon hung at its stop";
        outcomes.count(*ended);
        EXPECT_TRUE(finish(parent).exited_with(0)) << "run " << run;
    }
    EXPECT_EQ(outcomes.other, 0) << outcomes;
    std::cout << "detached: " << outcomes << "\n";
}

// Half the runs stop 0 to 10 ms after the spawn, which lands in the loading of the program and
// its fixed pools, before any handler exists; the other half 0 to 1.5 ms after the recorder's
// first log line, which lands in the last steps of its start-up (socket, threads) and the first
// moments of the receive loop.
TEST_F(SignalE2eTest, ForegroundRecorderStoppedRightAfterItsStartAlwaysEnds) {
    std::uniform_int_distribution<int> after_spawn_us(0, 10000);
    std::uniform_int_distribution<int> after_first_line_us(0, 1500);
    Outcomes outcomes;
    for (int run = 0; run < QUICK_STOP_RUNS; ++run) {
        const bool from_first_line = run % 2 == 1;
        const std::string config = write_config("writer" + std::to_string(run) + ".conf");
        ChildProcess& process = start({"--config", config});
        if (from_first_line) {
            ASSERT_TRUE(poll_closely(
                [&] {
                    return process.standard_error().find("SERVICE: exec path: ") !=
                           std::string::npos;
                },
                TIMEOUT))
                << "run " << run;
            pause_for(std::chrono::microseconds(after_first_line_us(random)));
        } else {
            pause_for(std::chrono::microseconds(after_spawn_us(random)));
        }
        ASSERT_TRUE(process.send_signal(SIGTERM)) << "run " << run;

        const std::optional<ExitStatus> ended = process.wait_exit(HANG);

        ASSERT_TRUE(ended.has_value()) << "run " << run << ": the recorder hung at its stop\n"
                                       << process.standard_error();
        outcomes.count(*ended);
        if (ended->exited_with(0)) {
            // Whatever phase the stop landed in, its lines were logged, and before the last one.
            const std::vector<LogLine> lines = log_lines(process);
            EXPECT_GE(text_index(lines, "SERVICE: signal 15 has been received"), 0)
                << "run " << run << "\n"
                << process.standard_error();
            EXPECT_EQ(lines.back().text.find("SERVICE: [quillmarwriter] main thread ["), 0u)
                << "run " << run << "\n"
                << process.standard_error();
        }
    }
    EXPECT_EQ(outcomes.other, 0) << outcomes;
    std::cout << "foreground: " << outcomes << "\n";
}

// One leg's data packets, side 0, sequence numbers from 1, one every `interval` until stopped.
// Threads: run on a thread of its own; `stop` is set by the test thread, the count read after
// the join.
class SteadyFlow {
public:
    SteadyFlow(std::uint16_t port, std::chrono::microseconds interval) : m_interval(interval) {
        EXPECT_TRUE(m_socket.open(0, INADDR_LOOPBACK));
        const std::string address = "127.0.0.1:" + std::to_string(port);
        EXPECT_NE(net::parse_addr(address.c_str(), nullptr, m_to), 0) << address;
        m_thread = std::thread([this] { run(); });
    }

    ~SteadyFlow() { stop(); }

    SteadyFlow(const SteadyFlow&) = delete;
    SteadyFlow& operator=(const SteadyFlow&) = delete;

    void stop() {
        // Relaxed: only asks the thread to end; the join orders the count.
        m_stopping.store(true, std::memory_order_relaxed);
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    std::uint32_t data_sent() const { return m_data_sent; }

private:
    void run() {
        send(encode_start(StartFields{}));
        DataFields data;
        data.seq = 0;
        data.payload.assign(160, 0x55);
        while (!m_stopping.load(std::memory_order_relaxed)) {
            ++data.seq;
            data.header.mt += 20;
            data.off += 160;
            send(encode_data(data));
            ++m_data_sent;
            pause_for(m_interval);
        }
    }

    void send(const Datagram& datagram) {
        EXPECT_TRUE(m_socket.send(m_to, datagram.data(), datagram.size()));
    }

    std::chrono::microseconds m_interval;
    net::Socket m_socket;
    sockaddr_in m_to{};
    std::uint32_t m_data_sent = 0;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

TEST_F(SignalE2eTest, StormOfOtherSignalsUnderTraceLoadThenTermStopsWithZero) {
    constexpr int STORM = 500;
    ChildProcess& process = start_recorder("log_level = TRACE\n");
    SteadyFlow flow(port, 200us);  // 5000 packets/s
    ASSERT_TRUE(process.wait_for_line("DATA  | ", TIMEOUT)) << process.standard_error();

    for (int i = 0; i < STORM; ++i) {
        ASSERT_TRUE(process.send_signal(i % 2 == 0 ? SIGHUP : SIGUSR1));
        pause_for(50us);
    }
    ASSERT_TRUE(process.wait_for_line("SERVICE: user action #1 has been requested", TIMEOUT));
    const Clock::time_point signalled = Clock::now();
    ASSERT_TRUE(process.send_signal(SIGTERM));
    const std::optional<ExitStatus> ended = process.wait_exit(2000ms);
    const Clock::duration stop_time = Clock::now() - signalled;
    flow.stop();

    ASSERT_TRUE(ended.has_value()) << "not stopped within 2 s";
    EXPECT_TRUE(ended->exited_with(0)) << ended->describe();
    // Every line whole: none torn or run into another. The statistics report's framed lines
    // follow its first line, which is a log line; each is 86 characters, an asterisk at each end.
    const std::regex any_line = line_pattern("[A-Z ]{7}", "[a-z_]+\\.cpp", ".*");
    const std::regex report_line(R"(\*.{84}\*)");
    const std::vector<std::string> raw = process.error_lines();
    for (const std::string& line : raw) {
        ASSERT_TRUE(std::regex_match(line, any_line) || std::regex_match(line, report_line))
            << line;
    }
    const std::regex received = line_pattern("SYSTEM ", "app_service\\.cpp",
                                             R"(SERVICE: signal (1|10|15) has been received)");
    std::size_t received_lines = 0;
    for (const std::string& line : raw) {
        if (line.find("has been received") != std::string::npos) {
            EXPECT_TRUE(std::regex_match(line, received)) << line;
            ++received_lines;
        }
    }
    const std::vector<LogLine> lines = log_lines(process);
    const auto count = [&](const std::string& text) {
        return static_cast<std::size_t>(std::count_if(
            lines.begin(), lines.end(), [&](const LogLine& line) { return line.text == text; }));
    };
    const std::size_t hangups = count("SERVICE: signal 1 has been received");
    const std::size_t user1 = count("SERVICE: signal 10 has been received");
    // The kernel merges a signal sent while the same one is still pending; each one delivered
    // has both its lines.
    EXPECT_GE(hangups, 1u);
    EXPECT_LE(hangups, static_cast<std::size_t>(STORM / 2));
    EXPECT_GE(user1, 1u);
    EXPECT_LE(user1, static_cast<std::size_t>(STORM / 2));
    EXPECT_EQ(count("SERVICE: update has been requested"), hangups);
    EXPECT_EQ(count("SERVICE: user action #1 has been requested"), user1);
    EXPECT_EQ(count("SERVICE: signal 15 has been received"), 1u);
    EXPECT_EQ(count("SERVICE: application stop has been requested"), 1u);
    EXPECT_EQ(received_lines, hangups + user1 + 1);
    // The packets logged are the flow's first ones, each once and in order.
    std::uint32_t expected_seq = 1;
    const std::regex data_line(R"(DATA  .*, side: 0, seq: (\d+), num: 160, off: \d+)");
    for (const LogLine& line : lines) {
        std::smatch match;
        if (line.level == "TRACE" && std::regex_match(line.text, match, data_line)) {
            EXPECT_EQ(std::stoul(match[1]), expected_seq) << line.text;
            ++expected_seq;
        }
    }
    EXPECT_GT(expected_seq, 1u);
    EXPECT_LE(expected_seq - 1, flow.data_sent());
    std::cout << "storm: " << hangups << " SIGHUP and " << user1 << " SIGUSR1 delivered of "
              << STORM << "; " << expected_seq - 1 << " of " << flow.data_sent()
              << " data packets logged; stopped "
              << std::chrono::duration_cast<std::chrono::milliseconds>(stop_time).count()
              << " ms after SIGTERM\n";
}

}  // namespace
}  // namespace qm::test
