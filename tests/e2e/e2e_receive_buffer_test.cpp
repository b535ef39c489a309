// The recorder's receive buffer on the running binary: what the system grants is logged, a grant
// short of the request is a WARNING that names the sysctl to raise, and datagrams the system
// drops for a full buffer are reported with their exact count at the next report.

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <regex>
#include <string>

#include "media/packet_encoder.hpp"
#include "recorder_e2e.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;

namespace {

std::uint64_t rmem_max() {
    std::ifstream in("/proc/sys/net/core/rmem_max");
    std::uint64_t value = 0;
    in >> value;
    return value;
}

class ReceiveBufferE2eTest : public RecorderE2eTest {
protected:
    // Starts the recorder as nobody, with a storage it may write to, a free port and `settings`,
    // and waits until it receives.
    ChildProcess& start_unprivileged_recorder(const std::string& settings) {
        std::filesystem::create_directories(storage());
        std::filesystem::permissions(storage(), std::filesystem::perms::all);
        const std::string config = directory.write_file(
            "writer.conf", "storage = " + storage().string() +
                               "\nport = " + std::to_string(pick_port()) + "\n" + settings);
        ChildProcess& process = start_unprivileged({"--config", config});
        EXPECT_TRUE(wait_receiving(process)) << process.standard_error();
        return process;
    }

    // Sends data packets 1 to BURST of the default leg, 160 samples each; returns the last.
    DataFields send_burst() const {
        DataFields data;
        data.payload.assign(160, 0x1234);
        for (std::uint32_t seq = 1; seq <= BURST; ++seq) {
            data.seq = seq;
            data.off = (seq - 1) * 160;
            send(encode_data(data));
        }
        return data;
    }

    static constexpr std::uint32_t BURST = 1000;

    // The recorder logged a line of `level` from `file` whose text matches `text`.
    static void expect_line(const ChildProcess& process, const std::string& level,
                            const std::string& file, const std::string& text) {
        EXPECT_TRUE(has_line(process.error_lines(), line_pattern(level, file, text)))
            << process.standard_error();
    }
};

TEST_F(ReceiveBufferE2eTest, RequestedBufferIsGrantedAndLogged) {
    // Root may go beyond net.core.rmem_max, as the packaged service's sysctl would allow.
    ChildProcess& process = start_recorder("receive_buffer_size = 32M\n");
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_line(process, "SYSTEM ", "net_socket.cpp",
                R"(SOCKET\[\d+\]: receive buffer: 33554432 bytes)");
}

TEST_F(ReceiveBufferE2eTest, ShortGrantIsAWarningNamingTheSysctl) {
    const std::uint64_t limit = rmem_max();
    const std::uint64_t requested = std::min<std::uint64_t>(2 * limit, 2147483647);
    ASSERT_LT(limit, requested) << "net.core.rmem_max is at the largest request";

    // Without CAP_NET_ADMIN the system stops at its limit.
    ChildProcess& process =
        start_unprivileged_recorder("receive_buffer_size = " + std::to_string(requested) + "\n");
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_line(process, "WARNING", "net_socket.cpp",
                R"(SOCKET\[\d+\]: receive buffer: )" + std::to_string(limit) + " bytes of " +
                    std::to_string(requested) +
                    literal(" requested; raise net.core.rmem_max to grant it"));
}

TEST_F(ReceiveBufferE2eTest, DatagramsDroppedWhileStoppedAreCountedAtTheNextReport) {
    ChildProcess& process = start_recorder("receive_buffer_size = 64K\n");
    StartFields start;
    send(encode_start(start));
    ASSERT_TRUE(wait_drained());

    // Stopped, the recorder reads nothing: the burst overflows its buffer.
    ASSERT_TRUE(process.send_signal(SIGSTOP));
    send_burst();
    const std::optional<UdpQueue> queue = udp_queue(port);
    ASSERT_TRUE(queue.has_value());
    ASSERT_GT(queue->drops, 0u);
    ASSERT_TRUE(process.send_signal(SIGCONT));
    const std::string warning = "STATISTIC_SERVICE: the system dropped " +
                                std::to_string(queue->drops) +
                                " datagrams since the last report: the receive buffer (65536 "
                                "bytes) overflowed";

    // A report comes every 5 seconds.
    EXPECT_TRUE(process.wait_for_line(warning, std::chrono::seconds(12)))
        << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(texts(log_lines(process), "WARNING", "statistic_service.cpp"),
              (std::vector<std::string>{warning}));
}

// With a packet ring the recorder takes its datagrams from the ring; the socket only holds the
// port, and its copies are drained, none dropped.
TEST_F(ReceiveBufferE2eTest, RingIsLoggedAndTheSocketIsDrained) {
    ChildProcess& process = start_recorder("receive_ring_size = 1M\n");
    StartFields start;
    send(encode_start(start));
    ASSERT_TRUE(process.wait_for_line("| START | ", TIMEOUT)) << process.standard_error();
    const bool drained = wait_drained();
    const std::optional<UdpQueue> queue = udp_queue(port);
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_line(process, "SYSTEM ", "packet_ring.cpp",
                R"(PACKET_RING\[\d+\]: receiving port )" + std::to_string(port) +
                    " through 8 blocks of 131072 bytes");
    ASSERT_TRUE(drained && queue.has_value());
    EXPECT_EQ(queue->drops, 0u);
    EXPECT_EQ(line_index(process.error_lines(), "receive buffer"), -1);
}

// Without CAP_NET_ADMIN nft cannot add the rule: the recorder says so and drains the socket, and
// records as before.
TEST_F(ReceiveBufferE2eTest, WithoutCapNetAdminTheRingsCopiesAreDrained) {
    const std::string config = directory.write_file(
        "writer.conf", "storage = " + storage().string() +
                           "\nport = " + std::to_string(pick_port()) +
                           "\nreceive_ring_size = 1M\nreceive_ring_nft = true\n");
    ChildProcess& process =
        start_program("/usr/bin/setpriv",
                      {"--bounding-set=-net_admin", "--", QM_BINARY_PATH, "--config", config}, {});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();
    StartFields start;
    send(encode_start(start));
    const bool recorded = process.wait_for_line("| START | ", TIMEOUT);
    const bool drained = wait_drained();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(recorded) << process.standard_error();
    EXPECT_TRUE(drained);
    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(texts(log_lines(process), "WARNING", "nft_port_rule.cpp"),
              (std::vector<std::string>{"NFT_PORT_RULE: failed to add the rule for port " +
                                        std::to_string(port) +
                                        ", nft exit status 1; draining the socket instead (the "
                                        "rule needs nft and CAP_NET_ADMIN)"}));
}

TEST_F(ReceiveBufferE2eTest, WithoutCapNetRawTheRecorderReadsItsSocket) {
    ChildProcess& process = start_unprivileged_recorder("receive_ring_size = 1M\n");
    StartFields start;
    send(encode_start(start));
    const bool recorded = process.wait_for_line("| START | ", TIMEOUT);
    const ExitStatus status = stop(process);

    EXPECT_TRUE(recorded) << process.standard_error();
    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(texts(log_lines(process), "WARNING", "packet_ring.cpp"),
              (std::vector<std::string>{
                  "PACKET_RING[ ]: failed to set up a packet ring, error (1): Operation not "
                  "permitted; receiving through the socket (the ring needs CAP_NET_RAW)"}));
}

// One block of ring: stopped, the recorder leaves it full, and what the system could not put in
// is dropped. The drop WARNING's count is exactly what the session then finds missing.
TEST_F(ReceiveBufferE2eTest, DatagramsTheRingCouldNotTakeAreCountedAtTheNextReport) {
    ChildProcess& process = start_recorder("receive_ring_size = 128K\n");
    StartFields start;
    send(encode_start(start));
    ASSERT_TRUE(process.wait_for_line("| START | ", TIMEOUT)) << process.standard_error();

    ASSERT_TRUE(process.send_signal(SIGSTOP));
    DataFields data = send_burst();
    ASSERT_TRUE(process.send_signal(SIGCONT));

    static const std::regex dropped(
        R"(STATISTIC_SERVICE: the system dropped (\d+) datagrams since the last report: the )"
        R"(receive buffer \(131072 bytes\) overflowed)");
    std::string warning_line;
    std::string warning;
    ASSERT_TRUE(poll_until(
        [&] {
            for (const std::string& text :
                 texts(log_lines(process), "WARNING", "statistic_service.cpp")) {
                std::smatch match;
                if (std::regex_match(text, match, dropped)) {
                    warning_line = text;
                    warning = match[1];
                    return true;
                }
            }
            return false;
        },
        std::chrono::seconds(12)))
        << process.standard_error();
    // Once a report counts the block's packets the recorder has handed the block back, so the
    // next packet gets in and shows the session the gap that the drops left.
    ASSERT_LT(std::stoul(warning), BURST);
    const std::string taken = "packet 'data'  type number.................: " +
                              std::to_string(BURST - std::stoul(warning)) + " ";
    ASSERT_TRUE(process.wait_for_line(taken, std::chrono::seconds(12))) << process.standard_error();
    data.seq = BURST + 1;
    data.off = BURST * 160;
    send(encode_data(data));
    const std::string lost = "session lost packets number................: " + warning + " ";
    const bool reported = process.wait_for_line(lost, std::chrono::seconds(12));
    const ExitStatus status = stop(process);

    EXPECT_TRUE(reported) << process.standard_error();
    EXPECT_GT(std::stoul(warning), 0u);
    EXPECT_EQ(texts(log_lines(process), "WARNING", "statistic_service.cpp"),
              (std::vector<std::string>{warning_line}));
    EXPECT_TRUE(status.exited_with(0)) << status.describe();
}

}  // namespace
}  // namespace qm::test
