// `allowed_sources` on the running binary: calls from a sender outside the list are counted and
// leave nothing on disk, while the calls of an allowed sender sent at the same time are recorded
// whole; through the socket and through the packet ring alike. A list that does not parse keeps
// the recorder from starting.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "media/packet_encoder.hpp"
#include "network_namespace.hpp"
#include "numbered_legs.hpp"
#include "recorder_e2e.hpp"
#include "udp_loopback.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;

namespace {

constexpr std::uint32_t LOOPBACK = 0x7F000001;
constexpr std::uint32_t OTHER_LOOPBACK = 0x7F000002;

// 100 calls from 127.0.0.1 (legs 0 to 99) and 100 from 127.0.0.2 (legs 100 to 199), sent side
// by side: each a start packet, FRAMES data packets and a terminate packet.
class AllowedSourcesE2eTest : public RecorderE2eTest {
protected:
    static constexpr std::uint32_t CALLS = 100;
    static constexpr std::uint32_t FRAMES = 10;
    // Every datagram of the refused calls.
    static constexpr std::uint64_t REFUSED = CALLS * (FRAMES + 2);

    static TerminateFields terminate_of(std::uint32_t leg) {
        TerminateFields terminate;
        terminate.header = numbered_frame(leg, FRAMES).header;
        terminate.header.mt += 20000;
        return terminate;
    }

    // Sends both senders' calls a round at a time (every start, then every call's next frame,
    // then every terminate), alternating the senders, and lets the socket empty after each
    // round: the count of refusals is exact while the socket does not overflow.
    void send_calls() {
        UdpSender allowed(port, LOOPBACK);
        UdpSender refused(port, OTHER_LOOPBACK);
        m_refused_port = 0;
        const auto round = [&](const auto& encode) {
            for (std::uint32_t call = 0; call < CALLS; ++call) {
                EXPECT_TRUE(allowed.send(encode(call)));
                EXPECT_TRUE(refused.send(encode(CALLS + call)));
            }
            EXPECT_TRUE(wait_drained());
        };
        round([](std::uint32_t leg) { return encode_start(numbered_start(leg)); });
        for (std::uint32_t seq = 1; seq <= FRAMES; ++seq) {
            round([seq](std::uint32_t leg) { return encode_data(numbered_frame(leg, seq)); });
        }
        round([](std::uint32_t leg) { return encode_terminate(terminate_of(leg)); });
        m_refused_port = refused.local_port();
        EXPECT_EQ(refused.sent(), REFUSED);
    }

    std::filesystem::path directory_of(std::uint32_t leg) const {
        return numbered_file_path(storage(), leg).parent_path();
    }

    // How many of the allowed calls' files hold every frame.
    std::size_t whole_calls() const {
        std::size_t whole = 0;
        for (std::uint32_t leg = 0; leg < CALLS; ++leg) {
            whole +=
                read_file(numbered_file_path(storage(), leg)) == numbered_file(leg, FRAMES) ? 1 : 0;
        }
        return whole;
    }

    // The refusal WARNINGs so far: their counts summed, and whether each named the refused
    // sender (127.0.0.2 and its port) as the last.
    std::uint64_t refusals_warned(const ChildProcess& process, bool& named) const {
        static const std::regex warning(
            R"(STATISTIC_SERVICE: refused (\d+) datagrams from sources not in allowed_sources )"
            R"(since the last report, the last from 127\.0\.0\.2:(\d+))");
        std::uint64_t sum = 0;
        named = true;
        for (const std::string& text :
             texts(log_lines(process), "WARNING", "statistic_service.cpp")) {
            std::smatch match;
            if (std::regex_match(text, match, warning)) {
                sum += std::stoull(match[1]);
                named = named && std::stoul(match[2]) == m_refused_port;
            } else {
                ADD_FAILURE() << "unexpected WARNING: " << text;
            }
        }
        return sum;
    }

    // The refused datagrams the metrics file shows; -1 while it holds no such sample.
    static std::int64_t refused_metric(const std::filesystem::path& metrics) {
        static const std::string NAME = "quillmarwriter_refused_datagrams_total ";
        for (const std::string& line : split_lines(read_file(metrics))) {
            if (line.rfind(NAME, 0) == 0) {
                return std::stoll(line.substr(NAME.size()));
            }
        }
        return -1;
    }

    // Records both senders' calls with `settings` and checks the outcome; returns the recorder,
    // ended.
    ChildProcess& record_and_refuse(const std::string& settings) {
        const std::filesystem::path metrics = directory.path() / "quillmarwriter.prom";
        ChildProcess& process = start_recorder(
            "allowed_sources = 127.0.0.1/32\nreceive_buffer_size = 4M\n"
            "metrics_file = " +
            metrics.string() + "\n" + settings);
        send_calls();

        EXPECT_TRUE(poll_until([&] { return whole_calls() == CALLS; }, TIMEOUT))
            << whole_calls() << " of " << CALLS << " calls whole";
        bool named = false;
        // A report comes every 5 seconds.
        EXPECT_TRUE(poll_until([&] { return refusals_warned(process, named) == REFUSED; },
                               std::chrono::seconds(12)))
            << process.standard_error();
        EXPECT_TRUE(poll_until([&] { return refused_metric(metrics) == REFUSED; },
                               std::chrono::seconds(12)));
        const ExitStatus status = stop(process);

        EXPECT_TRUE(status.exited_with(0)) << status.describe();
        EXPECT_EQ(refusals_warned(process, named), REFUSED);
        EXPECT_TRUE(named) << process.standard_error();
        // Not a packet of the refused calls reached the reader: no leg directory, no log line.
        for (std::uint32_t leg = CALLS; leg < 2 * CALLS; ++leg) {
            EXPECT_FALSE(std::filesystem::exists(directory_of(leg))) << directory_of(leg);
            EXPECT_EQ(line_index(process.error_lines(), directory_of(leg).filename().string()), -1)
                << directory_of(leg).filename();
        }
        EXPECT_EQ(whole_calls(), CALLS);
        return process;
    }

private:
    std::uint16_t m_refused_port = 0;
};

TEST_F(AllowedSourcesE2eTest, CallsFromOtherSendersAreCountedAndLeaveNothingThroughTheSocket) {
    record_and_refuse("receive_batch = 1\n");
}

TEST_F(AllowedSourcesE2eTest, CallsFromOtherSendersAreCountedAndLeaveNothingInBatches) {
    record_and_refuse("receive_batch = 64\n");
}

TEST_F(AllowedSourcesE2eTest, CallsFromOtherSendersAreCountedAndLeaveNothingThroughTheRing) {
    const ChildProcess& process = record_and_refuse("receive_ring_size = 1M\n");
    EXPECT_GE(line_index(process.error_lines(), "]: receiving port "), 0);
}

// The nftables rule stops only the allowed senders' copies before UDP: the others still reach the
// socket, where they are counted. In a network namespace of the test's own, so that the host's
// firewall is not touched.
TEST_F(AllowedSourcesE2eTest, CallsFromOtherSendersAreCountedThroughTheRingWithTheNftRule) {
    NetworkNamespace own;
    ASSERT_TRUE(own.enter());
    const ChildProcess& process =
        record_and_refuse("receive_ring_size = 1M\nreceive_ring_nft = true\n");
    EXPECT_EQ(texts(log_lines(process), "SYSTEM", "nft_port_rule.cpp").size(), 1u);
}

TEST_F(AllowedSourcesE2eTest, AListThatDoesNotParseKeepsTheRecorderFromStarting) {
    const std::string config = directory.write_file(
        "writer.conf", "storage = " + storage().string() + "\nallowed_sources = 10.0.0.0/33\n");
    ChildProcess& process = start({"--config", config});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    EXPECT_EQ(texts(log_lines(process), "ERROR", "configuration.cpp"),
              (std::vector<std::string>{"CONFIGURATION: failed to set option [allowed_sources] to "
                                        "[10.0.0.0/33]: unexpected value format in item "
                                        "[10.0.0.0/33]"}));
}

}  // namespace
}  // namespace qm::test
