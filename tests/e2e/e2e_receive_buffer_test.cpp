// The recorder's receive buffer on the running binary: what the system grants is logged, a grant
// short of the request is a WARNING that names the sysctl to raise, and datagrams the system
// drops for a full buffer are reported with their exact count at the next report.

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
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

class ReceiveBufferE2eTest : public RecorderE2eTest {};

TEST_F(ReceiveBufferE2eTest, RequestedBufferIsGrantedAndLogged) {
    // Root may go beyond net.core.rmem_max, as the packaged service's sysctl would allow.
    ChildProcess& process = start_recorder("receive_buffer_size = 32M\n");
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_TRUE(has_line(process.error_lines(),
                         line_pattern("SYSTEM ", "net_socket.cpp",
                                      R"(SOCKET\[\d+\]: receive buffer: 33554432 bytes)")))
        << process.standard_error();
}

TEST_F(ReceiveBufferE2eTest, ShortGrantIsAWarningNamingTheSysctl) {
    const std::uint64_t limit = rmem_max();
    const std::uint64_t requested = std::min<std::uint64_t>(2 * limit, 2147483647);
    ASSERT_LT(limit, requested) << "net.core.rmem_max is at the largest request";
    std::filesystem::create_directories(storage());
    std::filesystem::permissions(storage(), std::filesystem::perms::all);
    const std::string config = directory.write_file(
        "writer.conf", "storage = " + storage().string() +
                           "\nport = " + std::to_string(pick_port()) +
                           "\nreceive_buffer_size = " + std::to_string(requested) + "\n");

    // Without CAP_NET_ADMIN the system stops at its limit.
    ChildProcess& process = start_unprivileged({"--config", config});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_TRUE(
        has_line(process.error_lines(),
                 line_pattern("WARNING", "net_socket.cpp",
                              R"(SOCKET\[\d+\]: receive buffer: )" + std::to_string(limit) +
                                  " bytes of " + std::to_string(requested) +
                                  literal(" requested; raise net.core.rmem_max to grant it"))))
        << process.standard_error();
}

TEST_F(ReceiveBufferE2eTest, DatagramsDroppedWhileStoppedAreCountedAtTheNextReport) {
    ChildProcess& process = start_recorder("receive_buffer_size = 64K\n");
    StartFields start;
    send(encode_start(start));
    ASSERT_TRUE(wait_drained());

    // Stopped, the recorder reads nothing: the burst overflows its buffer.
    ASSERT_TRUE(process.send_signal(SIGSTOP));
    DataFields data;
    data.payload.assign(160, 0x1234);
    for (std::uint32_t seq = 1; seq <= 1000; ++seq) {
        data.seq = seq;
        data.off = (seq - 1) * 160;
        send(encode_data(data));
    }
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

}  // namespace
}  // namespace qm::test
