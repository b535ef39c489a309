#include "tools/call_sender.hpp"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "media/data_packet.hpp"
#include "media/start_packet.hpp"
#include "packet_bytes.hpp"
#include "temp_directory.hpp"
#include "tool_command_run.hpp"
#include "tools/call_manifest.hpp"
#include "tools/call_plan.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Clock = std::chrono::steady_clock;

constexpr auto RECEIVE_TIMEOUT = std::chrono::seconds(10);

// A UDP socket bound to an ephemeral port on 127.0.0.1 that collects what is sent to it.
class Receiver {
public:
    Receiver() : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int bytes = 4 << 20;
        ::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof m_address;
        if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address) !=
                0 ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&m_address), &length) != 0) {
            ADD_FAILURE() << "cannot bind a loopback UDP socket";
        }
    }
    ~Receiver() { ::close(m_socket); }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    const sockaddr_in& address() const { return m_address; }
    std::string destination() const { return "127.0.0.1:" + std::to_string(port()); }
    std::uint16_t port() const { return ntohs(m_address.sin_port); }

    // What arrives until `count` datagrams did or the deadline passes.
    std::vector<media::Datagram> receive(std::size_t count) {
        std::vector<media::Datagram> datagrams;
        const auto deadline = Clock::now() + RECEIVE_TIMEOUT;
        while (datagrams.size() < count && Clock::now() < deadline) {
            pollfd ready{m_socket, POLLIN, 0};
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (::poll(&ready, 1, static_cast<int>(left.count()) + 1) != 1) {
                continue;
            }
            datagrams.push_back(take());
        }
        return datagrams;
    }

    // What is queued already, without waiting: loopback delivers within the send call.
    std::vector<media::Datagram> queued() {
        std::vector<media::Datagram> datagrams;
        pollfd ready{m_socket, POLLIN, 0};
        while (::poll(&ready, 1, 0) == 1) {
            datagrams.push_back(take());
        }
        return datagrams;
    }

private:
    media::Datagram take() {
        media::Datagram datagram(2048);
        const ssize_t size = ::recv(m_socket, datagram.data(), datagram.size(), 0);
        datagram.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return datagram;
    }

    int m_socket;
    sockaddr_in m_address{};
};

LegIdentity identity(std::uint8_t leg) {
    LegIdentity identity;
    identity.uuid.fill(static_cast<std::uint8_t>(0x40 + leg));
    identity.id = 0xB000 + leg;
    identity.ts = 1633954638004211ULL;
    return identity;
}

CallPlan tone_plan(std::size_t legs, std::uint32_t frames, Impairments impairments = {}) {
    std::vector<LegIdentity> identities;
    for (std::size_t leg = 0; leg < legs; ++leg) {
        identities.push_back(identity(static_cast<std::uint8_t>(leg)));
    }
    return CallPlan(std::move(identities), PayloadSource::tone(frames, 160), impairments);
}

std::vector<media::Datagram> wire(const CallPlan& plan) {
    CallPlan::Cursor cursor(plan);
    std::vector<media::Datagram> datagrams;
    media::Datagram datagram;
    while (cursor.next(datagram)) {
        datagrams.push_back(datagram);
    }
    return datagrams;
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(DestinationTest, HostAndPortAreBothRequired) {
    const std::optional<sockaddr_in> address = parse_destination("127.0.0.2:9000");
    ASSERT_TRUE(address);
    EXPECT_EQ(address->sin_family, AF_INET);
    EXPECT_EQ(ntohl(address->sin_addr.s_addr), 0x7F000002u);
    EXPECT_EQ(ntohs(address->sin_port), 9000);
    EXPECT_EQ(print_destination(*address), "127.0.0.2:9000");
    const std::optional<sockaddr_in> named = parse_destination("localhost:65535");
    ASSERT_TRUE(named);
    EXPECT_EQ(print_destination(*named), "127.0.0.1:65535");
    for (const char* bad :
         {"", "127.0.0.1", "127.0.0.1:", ":9000", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:+9",
          "127.0.0.1:9x", "1.2.3:9000", "300.1.1.1:9000", "127.0.0.1:9000:1"}) {
        EXPECT_FALSE(parse_destination(bad)) << bad;
    }
}

TEST(SendSummaryTest, StatesCountsTimeAndRate) {
    SendResult result;
    result.counts = {50, 25000, 50, 12, 3, 7};
    result.sent = 25100;
    result.seconds = 2.51;
    EXPECT_EQ(send_summary(50, result),
              "sent 50 legs: 25100 datagrams (50 start, 25000 data, 50 terminate; 12 withheld, 3 "
              "reordered, 7 duplicated) in 2.510 s, 10000 datagrams/s");
}

// With and without segmentation: the receiver must not be able to tell them apart.
class UnpacedSendTest : public ::testing::TestWithParam<bool> {};

TEST_P(UnpacedSendTest, DeliversEveryDatagramByteEqualAndInOrder) {
    Receiver receiver;
    const CallPlan plan = tone_plan(3, 50, {0.1, 0.1, 0.1, 9});
    const std::vector<media::Datagram> expected = wire(plan);
    // More than one batch, so that batches follow one another.
    ASSERT_GT(expected.size(), 2 * CallSender::BATCH);

    CallSender sender(receiver.address(), GetParam());
    const SendResult result = sender.send(plan, 0.0);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.sent, expected.size());
    EXPECT_EQ(result.counts.datagrams(), expected.size());
    EXPECT_EQ(result.counts.start, 3u);
    EXPECT_EQ(result.counts.terminate, 3u);
    // What seed 9 gives.
    EXPECT_EQ(result.counts.withheld, 28u);

    const std::vector<media::Datagram> received = receiver.receive(expected.size());
    ASSERT_EQ(received.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(received[i], expected[i]) << "datagram " << i;
    }
    EXPECT_TRUE(receiver.queued().empty());
    // The frames that never arrived are the ones counted withheld.
    std::set<std::tuple<std::uint64_t, int, std::uint32_t>> arrived;
    for (const media::Datagram& datagram : received) {
        test::PacketBytes bytes(datagram);
        const media::DataPacket& packet = bytes.as<media::DataPacket>();
        if (packet.header.type == static_cast<std::uint8_t>(media::PacketType::DATA)) {
            arrived.emplace(std::uint64_t{packet.header.id}, int{packet.header.side()},
                            std::uint32_t{packet.seq});
        }
    }
    EXPECT_EQ(3u * 2 * 50 - arrived.size(), result.counts.withheld);
}

INSTANTIATE_TEST_SUITE_P(Segmentation, UnpacedSendTest, ::testing::Bool());

TEST(CallSenderTest, LargestDatagramsArriveWhole) {
    Receiver receiver;
    // 663 samples: 1376-byte datagrams, fewer of which fit one segmented message than a batch.
    const CallPlan plan({identity(0), identity(1)}, PayloadSource::tone(40, MAX_SAMPLES_PER_FRAME),
                        {});
    const std::vector<media::Datagram> expected = wire(plan);
    ASSERT_EQ(expected[2].size(), media::PACKET_MAX_LENGTH);

    CallSender sender(receiver.address());
    const SendResult result = sender.send(plan, 0.0);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.sent, expected.size());
    EXPECT_EQ(receiver.receive(expected.size()), expected);
}

TEST(CallSenderTest, PacedSendTakesAtLeastTheTimeTheRateAllows) {
    Receiver receiver;
    const CallPlan plan = tone_plan(1, 20);
    const std::size_t count = wire(plan).size();
    ASSERT_EQ(count, 42u);
    const double rate = 2000.0;

    CallSender sender(receiver.address());
    const Clock::time_point start = Clock::now();
    const SendResult result = sender.send(plan, rate);
    const double elapsed = seconds_since(start);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.sent, count);
    EXPECT_GE(elapsed, (count - 1) / rate);
    EXPECT_GE(result.seconds, (count - 1) / rate);
    EXPECT_EQ(receiver.receive(count).size(), count);
}

TEST(CallSenderTest, PacingHoldsAcrossBatches) {
    Receiver receiver;
    const CallPlan plan = tone_plan(4, 50, {0.0, 0.0, 0.5, 2});
    const std::size_t count = wire(plan).size();
    const double rate = 20000.0;

    CallSender sender(receiver.address());
    const Clock::time_point start = Clock::now();
    const SendResult result = sender.send(plan, rate);
    EXPECT_EQ(result.sent, count);
    EXPECT_GE(seconds_since(start), (count - 1) / rate);
    EXPECT_EQ(receiver.receive(count).size(), count);
}

TEST(CallSenderTest, RefusedSendEndsTheRunWithTheSystemsReason) {
    sockaddr_in nowhere{};
    nowhere.sin_family = AF_INET;
    nowhere.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    nowhere.sin_port = 0;  // no datagram may go to port 0
    CallSender sender(nowhere);
    const SendResult result = sender.send(tone_plan(1, 5), 0.0);
    EXPECT_EQ(result.error, "sendmmsg to 127.0.0.1:0: Invalid argument");
    EXPECT_EQ(result.sent, 0u);
}

// One run of `quillmar send` with its output captured.
CommandRun run_send(const std::vector<std::string>& arguments) {
    return run_subcommand(&add_send_command, "send", arguments);
}

TEST(SendCommandTest, SendsTheCallsWritesTheManifestAndSaysWhatItDid) {
    Receiver receiver;
    test::TempDirectory directory;
    const std::string manifest_path = (directory.path() / "sent.json").string();
    const CommandRun run =
        run_send({"--to", receiver.destination(), "--calls", "2", "--duration", "0.06", "--rate",
                  "0", "--loss", "0.5", "--reorder", "0", "--duplicate", "0.5", "--seed", "7",
                  "--manifest", manifest_path});
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.status, 0);

    // The same plan, made from the legs the manifest names, gives the exact bytes expected.
    const CallManifest manifest = read_manifest(manifest_path);
    ASSERT_EQ(manifest.legs.size(), 2u);
    std::vector<LegIdentity> legs;
    for (const SentLeg& leg : manifest.legs) {
        legs.push_back({leg.uuid, leg.id, leg.ts});
    }
    EXPECT_NE(legs[0].id, legs[1].id);
    const CallPlan plan(legs, PayloadSource::tone(3, 160), {0.5, 0.0, 0.5, 7});
    CallPlan::Cursor cursor(plan);
    std::vector<media::Datagram> expected;
    media::Datagram datagram;
    while (cursor.next(datagram)) {
        expected.push_back(datagram);
    }
    EXPECT_EQ(receiver.receive(expected.size()), expected);
    EXPECT_TRUE(receiver.queued().empty());
    for (std::size_t leg = 0; leg < 2; ++leg) {
        for (int side = 0; side < 2; ++side) {
            EXPECT_EQ(manifest.legs[leg].sides[side].expectations,
                      plan.manifest().legs[leg].sides[side].expectations);
        }
    }

    const PlanCounts& counts = cursor.counts();
    const std::regex summary("sent 2 legs: " + std::to_string(counts.datagrams()) +
                             " datagrams \\(2 start, " + std::to_string(counts.data) +
                             " data, 2 terminate; " + std::to_string(counts.withheld) +
                             " withheld, 0 reordered, " + std::to_string(counts.duplicated) +
                             " duplicated\\) in [0-9]+\\.[0-9]{3} s, [0-9]+ datagrams/s\n");
    EXPECT_TRUE(std::regex_match(run.out, summary)) << run.out;
}

TEST(SendCommandTest, DefaultRateIsRealTime) {
    Receiver receiver;
    const Clock::time_point start = Clock::now();
    // 5 frames a side: 12 datagrams at 2 x 8000 / 160 = 100 a second.
    const CommandRun run =
        run_send({"--to", receiver.destination(), "--calls", "1", "--duration", "0.1"});
    EXPECT_GE(seconds_since(start), 11 / 100.0);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.out, StartsWith("sent 1 leg: 12 datagrams (1 start, 10 data, 1 terminate; "
                                    "0 withheld, 0 reordered, 0 duplicated) in "));
    EXPECT_EQ(receiver.receive(12).size(), 12u);
}

TEST(SendCommandTest, OneByOneSendsEveryDatagramAsItsOwnMessage) {
    Receiver receiver;
    const CommandRun run = run_send({"--to", receiver.destination(), "--calls", "3", "--duration",
                                     "0.1", "--rate", "0", "--one-by-one"});
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.status, 0);
    // 3 legs of 5 frames a side: 3 starts, 30 data packets, 3 terminates.
    const std::vector<media::Datagram> received = receiver.receive(36);
    ASSERT_EQ(received.size(), 36u);
    EXPECT_TRUE(receiver.queued().empty());
}

TEST(SendCommandTest, SendsAnAudioFileForItsLength) {
    Receiver receiver;
    test::TempDirectory directory;
    // 250 samples of 8000 Hz mono, 16-bit big-endian in an AU file: another format than WAV.
    const std::string path = (directory.path() / "voice.au").string();
    std::string au = {'.', 's', 'n', 'd', 0, 0, 0,    24,   0, 0, 1, static_cast<char>(0xF4),
                      0,   0,   0,   3,   0, 0, 0x1F, 0x40, 0, 0, 0, 1};
    for (int i = 0; i < 250; ++i) {
        au += static_cast<char>(i >> 8);
        au += static_cast<char>(i);
    }
    directory.write_file("voice.au", au);
    const CommandRun run =
        run_send({"--to", receiver.destination(), "--calls", "1", "--audio", path, "--rate", "0"});
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.status, 0);
    // 250 samples: frames of 160 and 90 a side.
    EXPECT_THAT(run.out, StartsWith("sent 1 leg: 6 datagrams (1 start, 4 data, 1 terminate; "));
    const std::vector<media::Datagram> received = receiver.receive(6);
    ASSERT_EQ(received.size(), 6u);
    test::PacketBytes last(received[4]);
    EXPECT_EQ(last.as<media::DataPacket>().num, 90u);
    EXPECT_EQ(last.as<media::DataPacket>().off, 160u);
    EXPECT_EQ(last.as<media::DataPacket>().payload()[0], 160);  // sample 160, little-endian
    EXPECT_EQ(last.as<media::DataPacket>().payload()[1], 0);
}

TEST(SendCommandTest, UsageErrorsExitWith2AndOneLine) {
    Receiver receiver;
    const std::string to = receiver.destination();
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--calls", "1"}, "--to HOST:PORT and --calls N are required"},
        {{"--to", to}, "--to HOST:PORT and --calls N are required"},
        {{"--to", "127.0.0.1", "--calls", "1"},
         "--to \"127.0.0.1\": not HOST:PORT (an IPv4 address or host name, a port 1-65535)"},
        {{"--to", "127.0.0.1:70000", "--calls", "1"},
         "--to \"127.0.0.1:70000\": not HOST:PORT (an IPv4 address or host name, a port "
         "1-65535)"},
        {{"--to", to, "--calls", "0"}, "--calls 0: from 1 to 100000"},
        {{"--to", to, "--calls", "two"}, "--calls \"two\": not a whole number"},
        {{"--to", to, "--calls", "1", "--loss", "1.5"}, "--loss 1.5: a probability is from 0 to 1"},
        {{"--to", to, "--calls", "1", "--reorder", "-0.1"},
         "--reorder -0.1: a probability is from 0 to 1"},
        {{"--to", to, "--calls", "1", "--duplicate", "half"}, "--duplicate \"half\": not a number"},
        {{"--to", to, "--calls", "1", "--samples", "0"},
         "--samples 0: from 1 to 663 (a data packet of N samples is 50 + 2N bytes, and the "
         "recorder takes datagrams of at most 1376)"},
        {{"--to", to, "--calls", "1", "--samples", "664"},
         "--samples 664: from 1 to 663 (a data packet of N samples is 50 + 2N bytes, and the "
         "recorder takes datagrams of at most 1376)"},
        {{"--to", to, "--calls", "1", "--duration", "0"}, "--duration 0: must be more than 0"},
        {{"--to", to, "--calls", "1", "--duration", "nan"}, "--duration \"nan\": not a number"},
        {{"--to", to, "--calls", "1", "--duration", "600000"},
         "a leg of 30000000 frames of 160 samples is too long: offsets are 32 bits"},
        {{"--to", to, "--calls", "1", "--duration", "1e300"},
         "a leg of 18446744073709551615 frames of 160 samples is too long: offsets are 32 "
         "bits"},
        {{"--to", to, "--calls", "1", "--rate", "-5"},
         "--rate -5: datagrams per second, 0 or more"},
        {{"--to", to, "--calls", "1", "--seed", "-1"}, "--seed \"-1\": not a whole number"},
        {{"--to", to, "--calls", "1", "--manifest", "/nonexistent/dir/sent.json"},
         "/nonexistent/dir/sent.json: cannot write the manifest"},
    };
    for (const auto& [arguments, message] : cases) {
        const CommandRun run = run_send(arguments);
        EXPECT_EQ(run.status, 2) << message;
        EXPECT_EQ(run.err, "quillmar send: " + message + "\n");
        EXPECT_EQ(run.out, "");
    }
    // Nothing was sent by any of them.
    EXPECT_TRUE(receiver.queued().empty());
}

TEST(SendCommandTest, UnreadableAudioIsAUsageError) {
    test::TempDirectory directory;
    const std::string missing = (directory.path() / "missing.wav").string();
    const CommandRun run = run_send({"--to", "127.0.0.1:9", "--calls", "1", "--audio", missing});
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.err, StartsWith("quillmar send: " + missing + ": cannot read audio: "));
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1);
}

TEST(SendCommandTest, FailedSendExitsWith1AndTheReason) {
    // The loopback network's broadcast address: the kernel refuses it to a socket without
    // SO_BROADCAST, so nothing leaves.
    const CommandRun run =
        run_send({"--to", "127.255.255.255:9", "--calls", "1", "--duration", "0.02"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err,
              "quillmar send: sendmmsg to 127.255.255.255:9: Permission denied (after 0 "
              "datagrams)\n");
    EXPECT_EQ(run.out, "");
}

TEST(SendCommandTest, MissingValueIsTheParsersError) {
    EXPECT_THROW(run_send({"--to"}), CLI::ParseError);
}

}  // namespace
}  // namespace qm::tools
