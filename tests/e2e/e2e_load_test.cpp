// The recorder under load over loopback: one sender thread sends whole call legs (start packet,
// data packets, terminate packet) from one socket. Measured times and rates are printed.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "media/packet_encoder.hpp"
#include "net/net_address.hpp"
#include "net/net_socket.hpp"
#include "recorder_e2e.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;
namespace {

using Clock = std::chrono::steady_clock;

constexpr int DATA_PER_LEG = 198;
// 20 ms of 8 kHz samples per data packet.
constexpr std::uint16_t UNITS_PER_DATA = 160;
constexpr std::uint64_t MT_STEP = 20;
const std::string LEAK_LINE =
    "MEDIA_WRITER: Possible memory leak detected! All buffers must be inside the pool at this "
    "point";

// The uuid of leg `leg` in its text form.
std::string leg_uuid_text(int leg) {
    char last_bytes[5];
    std::snprintf(last_bytes, sizeof last_bytes, "%02x%02x", (leg >> 8) & 0xff, leg & 0xff);
    return "00112233-4455-6677-8899-aabbccdd" + std::string(last_bytes);
}

// Sends call legs from one socket to 127.0.0.1:`port`: leg n (from 0) has the id n + 1 and a uuid
// whose last two bytes are n, and consists of a start packet, DATA_PER_LEG data packets with the
// sequence numbers 1, 2, ... on side 0 and a terminate packet. `pace` runs after every packet.
// Threads: created by the test's thread, used by one sender thread; the test reads the counts
// after joining it.
class LegSender {
public:
    explicit LegSender(std::uint16_t port) {
        if (!m_socket.open(0, INADDR_LOOPBACK)) {
            ADD_FAILURE() << "no sending socket";
        }
        const std::string address = "127.0.0.1:" + std::to_string(port);
        EXPECT_NE(net::parse_addr(address.c_str(), nullptr, m_to), 0) << address;
    }

    void send_legs(int legs, const std::function<void()>& pace) {
        for (int leg = 0; leg < legs; ++leg) {
            HeaderFields header;
            header.id = static_cast<std::uint64_t>(leg) + 1;
            header.uuid[14] = static_cast<std::uint8_t>(leg >> 8);
            header.uuid[15] = static_cast<std::uint8_t>(leg);
            StartFields start;
            start.header = header;
            send(encode_start(start), pace);
            DataFields data;
            data.payload.assign(UNITS_PER_DATA, 0x55);
            data.header = header;
            for (int seq = 1; seq <= DATA_PER_LEG; ++seq) {
                data.seq = static_cast<std::uint32_t>(seq);
                data.header.mt = header.mt + MT_STEP * static_cast<std::uint64_t>(seq);
                data.off = static_cast<std::uint32_t>(seq - 1) * UNITS_PER_DATA;
                send(encode_data(data), pace);
            }
            TerminateFields terminate;
            terminate.header = header;
            terminate.header.mt = data.header.mt + MT_STEP;
            send(encode_terminate(terminate), pace);
        }
    }

    std::uint64_t sent() const { return m_sent; }
    std::uint64_t failed() const { return m_failed; }

private:
    void send(const Datagram& datagram, const std::function<void()>& pace) {
        if (m_socket.send(m_to, datagram.data(), datagram.size())) {
            ++m_sent;
        } else {
            ++m_failed;
        }
        pace();
    }

    net::Socket m_socket;
    sockaddr_in m_to{};
    std::uint64_t m_sent = 0;
    std::uint64_t m_failed = 0;
};

double per_second(std::uint64_t count, Clock::duration elapsed) {
    return static_cast<double>(count) / std::chrono::duration<double>(elapsed).count();
}

long milliseconds(Clock::duration elapsed) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

using LoadE2eTest = RecorderE2eTest;

TEST_F(LoadE2eTest, TwoHundredThousandPacketsAtFullSpeedThenTermStopsInOrder) {
    constexpr int LEGS = 1000;
    ChildProcess& process = start_recorder();
    LegSender sender(port);

    const Clock::time_point begin = Clock::now();
    std::thread sending([&] { sender.send_legs(LEGS, [] {}); });
    sending.join();
    const Clock::duration sending_time = Clock::now() - begin;
    const std::optional<UdpQueue> queue = udp_queue(port);

    EXPECT_EQ(sender.sent(), LEGS * (DATA_PER_LEG + 2u));
    EXPECT_EQ(sender.failed(), 0u);
    EXPECT_FALSE(process.wait_exit(std::chrono::milliseconds(0)).has_value()) << "not up";
    const ExitStatus status = stop(process, SIGTERM);
    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_orderly_stop(process, SIGTERM);

    const std::vector<LogLine> lines = log_lines(process);
    const std::size_t starts = texts(lines, "SYSTEM", "media_packet_reader.cpp").size();
    // Legs whose terminate packet the kernel dropped are still open at the stop: their buffers
    // are still attached, which the media writer's check reports.
    for (const LogLine& line : lines) {
        EXPECT_TRUE(line.level != "ERROR" || line.text == LEAK_LINE) << line.text;
    }
    // The thread's own start and stop lines besides the packets.
    EXPECT_GT(starts, 2u) << "nothing received";
    std::cout << "sent " << sender.sent() << " packets in " << milliseconds(sending_time) << " ms ("
              << static_cast<long>(per_second(sender.sent(), sending_time))
              << " packets/s); dropped by the full socket buffer: "
              << (queue ? std::to_string(queue->drops) : "?")
              << "; start/terminate lines: " << starts - 2 << "\n";
}

TEST_F(LoadE2eTest, PacedTraceLoadLogsEveryDataPacketExactlyOnce) {
    constexpr int LEGS = 102;  // 102 * 198 = 20196 data packets
    // The default receive buffer (208 KiB) holds about 160 of these datagrams at the size the
    // kernel charges for them (payload, buffer head and page rounding).
    constexpr int BATCH = 50;
    ChildProcess& process = start_recorder("log_level = TRACE\n");
    LegSender sender(port);
    // Between batches the sender waits until the recorder's socket is empty, so its buffer can
    // never overflow.
    int in_batch = 0;
    bool paced = true;
    const auto pace = [&] {
        if (++in_batch < BATCH) {
            return;
        }
        in_batch = 0;
        paced = paced && poll_until(
                             [&] {
                                 const std::optional<UdpQueue> queue = udp_queue(port);
                                 return queue && queue->queued_bytes == 0;
                             },
                             TIMEOUT, std::chrono::milliseconds(1));
    };

    const Clock::time_point begin = Clock::now();
    std::thread sending([&] { sender.send_legs(LEGS, pace); });
    sending.join();
    const Clock::duration sending_time = Clock::now() - begin;
    // The last packet's line: everything sent before it has been handled by then.
    const std::string last_term =
        "TERM  | mt: " + std::to_string(1000 + MT_STEP * (DATA_PER_LEG + 1)) +
        ", v: 1, f: 0, uuid: " + leg_uuid_text(LEGS - 1);
    ASSERT_TRUE(process.wait_for_line(last_term, TIMEOUT)) << last_term << "\n"
                                                           << process.error_lines().back();
    const Clock::duration handling_time = Clock::now() - begin;
    const std::optional<UdpQueue> queue = udp_queue(port);
    EXPECT_TRUE(stop(process, SIGTERM).exited_with(0));

    ASSERT_TRUE(paced) << "the recorder's socket did not empty";
    ASSERT_TRUE(queue.has_value());
    EXPECT_EQ(queue->drops, 0u);
    EXPECT_EQ(sender.failed(), 0u);
    const std::vector<LogLine> lines = log_lines(process);
    const std::vector<std::string> data_lines = texts(lines, "TRACE", "media_packet_reader.cpp");
    const std::set<std::string> distinct(data_lines.begin(), data_lines.end());
    EXPECT_EQ(data_lines.size(), static_cast<std::size_t>(LEGS * DATA_PER_LEG));
    EXPECT_EQ(distinct.size(), data_lines.size()) << "a data packet was logged twice";
    for (const LogLine& line : lines) {
        EXPECT_TRUE(line.level != "ERROR" && line.level != "WARNING") << line.text;
    }
    std::cout << "sent " << sender.sent() << " packets in " << milliseconds(sending_time) << " ms ("
              << static_cast<long>(per_second(sender.sent(), sending_time))
              << " packets/s), all handled after " << milliseconds(handling_time) << " ms; "
              << data_lines.size() << " DATA lines\n";
}

}  // namespace
}  // namespace qm::test
