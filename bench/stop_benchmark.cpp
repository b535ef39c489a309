// How long the recorder binary takes to stop on SIGTERM: from the signal sent to the process
// reaped, idle and with legs open. Each iteration starts a recorder of its own and waits until it
// receives; only the stop is timed. Reported per stop, with the part inside the recorder (from
// its "signal 15 has been received" line to its last line, by its own time stamps) as
// `inside_us`.
#include <benchmark/benchmark.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "child_process.hpp"
#include "media/packet_encoder.hpp"
#include "temp_directory.hpp"
#include "udp_loopback.hpp"

namespace qm::bench {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::chrono::milliseconds TIMEOUT = 10s;
// Frames sent on each open leg: more than one media buffer's worth (192), so that every leg
// has a buffer with the writer and one being filled at the stop.
constexpr std::uint32_t FRAMES_PER_LEG = 200;
// Holds every datagram of 100 such legs, sent at full speed (root may exceed rmem_max).
const std::string SETTINGS = "receive_buffer_size = 64M\n";

// Microseconds since midnight of a log line ("2026.11.22 22:27:24.577965 | ..."); nothing for
// other lines.
std::optional<std::int64_t> line_time_us(const std::string& line) {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    long micros = 0;
    if (line.size() < 26 || std::sscanf(line.c_str() + 11, "%2d:%2d:%2d.%6ld", &hours, &minutes,
                                        &seconds, &micros) != 4) {
        return std::nullopt;
    }
    return ((hours * 60L + minutes) * 60L + seconds) * 1000000L + micros;
}

// From the signal's line to the last log line, by the recorder's own clock; nothing when either
// is missing.
std::optional<std::int64_t> inside_us(const test::ChildProcess& process) {
    std::optional<std::int64_t> received;
    std::optional<std::int64_t> last;
    for (const std::string& line : process.error_lines()) {
        const std::optional<std::int64_t> time = line_time_us(line);
        if (!time) {
            continue;
        }
        if (!received && line.find("SERVICE: signal 15 has been received") != std::string::npos) {
            received = time;
        }
        last = time;
    }
    if (!received || !last) {
        return std::nullopt;
    }
    return *last - *received;
}

// `legs` legs, each a start packet and FRAMES_PER_LEG frames and no terminate, then a terminate
// of another leg whose line shows that the reader has taken everything before it.
bool open_legs(const test::ChildProcess& process, std::uint16_t port, int legs) {
    test::UdpSender sender(port);
    for (int leg = 0; leg < legs; ++leg) {
        media::StartFields start;
        start.header.id = static_cast<std::uint64_t>(leg) + 1;
        start.header.uuid[15] = static_cast<std::uint8_t>(leg);
        sender.send(media::encode_start(start));
        media::DataFields data;
        data.header = start.header;
        data.payload.assign(160, 0x55);
        for (std::uint32_t seq = 1; seq <= FRAMES_PER_LEG; ++seq) {
            data.seq = seq;
            data.off = (seq - 1) * 160;
            data.header.mt = start.header.mt + 20 * seq;
            sender.send(media::encode_data(data));
        }
    }
    media::TerminateFields marker;
    marker.header.id = 0xfeed;
    sender.send(media::encode_terminate(marker));
    return sender.failed() == 0 && process.wait_for_line("TERM  | ", TIMEOUT);
}

void BM_StopOnTerm(benchmark::State& state) {
    const int legs = static_cast<int>(state.range(0));
    double inside_total = 0;
    for (auto _ : state) {
        test::TempDirectory directory;
        const std::uint16_t port = test::free_udp_port();
        const std::string config = directory.write_file(
            "writer.conf", "storage = " + (directory.path() / "storage").string() +
                               "\nport = " + std::to_string(port) + "\n" + SETTINGS);
        const std::filesystem::path output = directory.path() / "run";
        std::filesystem::create_directory(output);
        test::ProcessOptions options;
        options.args = {"--config", config};
        test::ChildProcess process(QM_BINARY_PATH, options, output);
        if (!process.wait_for_line("PACKETS_READER: thread [", TIMEOUT) ||
            !open_legs(process, port, legs)) {
            state.SkipWithError("the recorder did not take the legs");
            break;
        }

        const Clock::time_point signalled = Clock::now();
        process.send_signal(SIGTERM);
        std::optional<test::ExitStatus> status;
        while (!(status = process.wait_exit(0ms)) && Clock::now() - signalled < TIMEOUT) {
            std::this_thread::sleep_for(20us);
        }
        const Clock::duration stop_time = Clock::now() - signalled;

        const std::optional<std::int64_t> inside = inside_us(process);
        if (!status || !status->exited_with(0) || !inside) {
            state.SkipWithError("the recorder did not stop in order");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(stop_time).count());
        inside_total += static_cast<double>(*inside);
    }
    state.counters["inside_us"] =
        benchmark::Counter(inside_total, benchmark::Counter::kAvgIterations);
}

// Few iterations: each starts a recorder, which reserves its media buffers at start.
BENCHMARK(BM_StopOnTerm)
    ->ArgName("open_legs")
    ->Arg(0)
    ->Arg(100)
    ->Iterations(20)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qm::bench
