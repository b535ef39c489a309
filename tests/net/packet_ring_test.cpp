#include "net/packet_ring.hpp"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "poll.hpp"
#include "udp_loopback.hpp"

namespace qm::net {
namespace {

using Bytes = std::vector<std::uint8_t>;
using test::free_udp_port;

// 10.0.0.1:4000 -> 10.0.0.2:5190, payload 51 4d 01 02 03, IP header checksum 0x66c9, UDP
// checksum 0x729c (both worked out independently of the code under test).
const Bytes ODD_PAYLOAD_PACKET = {0x45, 0x00, 0x00, 0x21, 0x00, 0x01, 0x00, 0x00, 0x40, 0x11, 0x66,
                                  0xc9, 0x0a, 0x00, 0x00, 0x01, 0x0a, 0x00, 0x00, 0x02, 0x0f, 0xa0,
                                  0x14, 0x46, 0x00, 0x0d, 0x72, 0x9c, 0x51, 0x4d, 0x01, 0x02, 0x03};

// The same addresses and ports with a 24-byte IP header (one word of options), payload "abcd",
// IP header checksum 0x63c4, UDP checksum 0x0327.
const Bytes OPTIONS_PACKET = {0x46, 0x00, 0x00, 0x24, 0x00, 0x01, 0x00, 0x00, 0x40,
                              0x11, 0x63, 0xc4, 0x0a, 0x00, 0x00, 0x01, 0x0a, 0x00,
                              0x00, 0x02, 0x01, 0x01, 0x01, 0x01, 0x0f, 0xa0, 0x14,
                              0x46, 0x00, 0x0c, 0x03, 0x27, 0x61, 0x62, 0x63, 0x64};

Bytes payload_of(const Bytes& packet, bool trusted = false) {
    const auto payload = udp_payload(packet, trusted);
    return payload ? Bytes(payload->begin(), payload->end()) : Bytes{0xde, 0xad};
}

bool taken(const Bytes& packet, bool trusted = false) {
    return udp_payload(packet, trusted).has_value();
}

// `packet` with byte `index` set to `value`.
Bytes with_byte(Bytes packet, std::size_t index, std::uint8_t value) {
    packet[index] = value;
    return packet;
}

// `packet` with its IPv4 header checksum made to hold again after an edit of its header, so
// that a test refuses the packet for the fault it means and not for the checksum. Written
// apart from the code under test: the complement of the end-around-carry sum of the header's
// 16-bit words, the checksum field counted as zero.
Bytes with_header_checksum(Bytes packet) {
    const std::size_t length = std::min<std::size_t>((packet[0] & 0x0f) * 4u, packet.size());
    packet[10] = 0;
    packet[11] = 0;
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < length; i += 2) {
        sum += static_cast<std::uint32_t>(packet[i] << 8 | packet[i + 1]);
    }
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    packet[10] = static_cast<std::uint8_t>(~sum >> 8);
    packet[11] = static_cast<std::uint8_t>(~sum);
    return packet;
}

// `packet` with header byte `index` set to `value` and the header checksum mended.
Bytes with_header_byte(const Bytes& packet, std::size_t index, std::uint8_t value) {
    return with_header_checksum(with_byte(packet, index, value));
}

TEST(UdpPayloadTest, WellFormedPacketGivesItsPayload) {
    EXPECT_EQ(payload_of(ODD_PAYLOAD_PACKET), (Bytes{0x51, 0x4d, 0x01, 0x02, 0x03}));
}

TEST(UdpPayloadTest, PayloadFollowsTheIpOptions) {
    EXPECT_EQ(payload_of(OPTIONS_PACKET), (Bytes{'a', 'b', 'c', 'd'}));
}

TEST(UdpPayloadTest, ChecksumCoversAnOddLastByte) {
    EXPECT_TRUE(udp_checksum_holds(ODD_PAYLOAD_PACKET));
    Bytes changed = ODD_PAYLOAD_PACKET;
    changed.back() ^= 0x01;
    EXPECT_FALSE(udp_checksum_holds(changed));
}

TEST(UdpPayloadTest, WrongChecksumIsRefusedUnlessTheSystemVouchedForIt) {
    Bytes changed = OPTIONS_PACKET;
    changed[33] ^= 0x20;
    EXPECT_FALSE(taken(changed));
    EXPECT_EQ(payload_of(changed, true), (Bytes{'a', 'B', 'c', 'd'}));
}

TEST(UdpPayloadTest, ZeroChecksumMeansNone) {
    const Bytes unchecked = with_byte(with_byte(ODD_PAYLOAD_PACKET, 26, 0), 27, 0);
    EXPECT_EQ(payload_of(unchecked), (Bytes{0x51, 0x4d, 0x01, 0x02, 0x03}));
}

TEST(UdpPayloadTest, TrailingBytesBeyondTheUdpLengthAreNotPayload) {
    // Link-layer padding after the datagram, counted in the IP length.
    Bytes padded = OPTIONS_PACKET;
    padded.insert(padded.end(), {0, 0, 0, 0});
    padded[3] = 0x28;
    padded = with_header_checksum(padded);
    EXPECT_EQ(payload_of(padded, true), (Bytes{'a', 'b', 'c', 'd'}));
}

TEST(UdpPayloadTest, FragmentsAreRefused) {
    const Bytes& packet = ODD_PAYLOAD_PACKET;
    EXPECT_FALSE(taken(with_header_byte(packet, 6, 0x20), true));  // more fragments follow
    EXPECT_FALSE(taken(with_header_byte(packet, 7, 0x01), true));  // a later fragment
    EXPECT_TRUE(taken(with_header_byte(packet, 6, 0x40), true));   // do not fragment
}

TEST(UdpPayloadTest, HeaderChecksumIsCheckedEvenWhenTheSystemVouchedForTheUdpChecksum) {
    EXPECT_TRUE(ipv4_header_checksum_holds(ODD_PAYLOAD_PACKET));
    EXPECT_TRUE(ipv4_header_checksum_holds(OPTIONS_PACKET));
    // 0x66c9 with one bit changed, and the time to live changed under the right checksum.
    const Bytes wrong_checksum = with_byte(ODD_PAYLOAD_PACKET, 11, 0xc8);
    const Bytes changed_header = with_byte(ODD_PAYLOAD_PACKET, 8, 0x3f);
    // An option word changed under the right checksum: the options are covered too.
    const Bytes changed_option = with_byte(OPTIONS_PACKET, 23, 0x02);

    for (const Bytes& bytes : {wrong_checksum, changed_header, changed_option}) {
        EXPECT_FALSE(ipv4_header_checksum_holds(bytes));
        EXPECT_FALSE(taken(bytes, false));
        EXPECT_FALSE(taken(bytes, true));
    }
}

TEST(UdpPayloadTest, BrokenHeadersAreRefused) {
    const Bytes& packet = ODD_PAYLOAD_PACKET;
    const Bytes broken[] = {
        with_header_byte(packet, 9, 6),     // TCP
        with_header_byte(packet, 0, 0x65),  // IP version 6
        with_header_byte(packet, 0, 0x44),  // a header of 16 bytes
        with_header_byte(packet, 3, 0x22),  // an IP length beyond what was captured
        with_byte(packet, 25, 0x0e),        // a UDP length beyond the IP packet
        with_byte(packet, 25, 0x07),        // a UDP length shorter than its header
        Bytes(packet.begin(), packet.begin() + 19),
        Bytes(packet.begin(), packet.begin() + 24),
    };
    for (const Bytes& bytes : broken) {
        EXPECT_FALSE(taken(bytes, true));
    }
}

TEST(UdpPayloadTest, EmptyDatagramHasAnEmptyPayload) {
    Bytes empty(ODD_PAYLOAD_PACKET.begin(), ODD_PAYLOAD_PACKET.begin() + 28);
    empty[3] = 28;
    empty[25] = 8;
    const auto payload = udp_payload(with_header_checksum(empty), true);
    ASSERT_TRUE(payload.has_value());
    EXPECT_TRUE(payload->empty());
}

// Hands `packet` (from the IP header on) to the loopback device as a frame for this host, past
// the system's IP layer, which would mend its header checksum. Needs CAP_NET_RAW.
bool send_ipv4_frame_on_loopback(const Bytes& packet) {
    const int link = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP));
    if (link == -1) {
        return false;
    }
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ETH_P_IP);
    to.sll_ifindex = static_cast<int>(::if_nametoindex("lo"));
    // The loopback device's address is all zeros: the frame is for this host.
    to.sll_halen = ETH_ALEN;
    const ssize_t sent = ::sendto(link, packet.data(), packet.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
    ::close(link);
    return sent == static_cast<ssize_t>(packet.size());
}

// 127.0.0.1:4000 -> 127.0.0.1:`port`, payload 51 4d 01 02 03, the UDP checksum left out (0), and
// IP header checksum `checksum`.
Bytes loopback_packet(std::uint16_t port, std::uint16_t checksum) {
    Bytes packet = {0x45, 0x00, 0x00, 0x21, 0x00, 0x01, 0x00, 0x00, 0x40, 0x11, 0x00,
                    0x00, 0x7f, 0x00, 0x00, 0x01, 0x7f, 0x00, 0x00, 0x01, 0x0f, 0xa0,
                    0x00, 0x00, 0x00, 0x0d, 0x00, 0x00, 0x51, 0x4d, 0x01, 0x02, 0x03};
    packet[10] = static_cast<std::uint8_t>(checksum >> 8);
    packet[11] = static_cast<std::uint8_t>(checksum);
    packet[22] = static_cast<std::uint8_t>(port >> 8);
    packet[23] = static_cast<std::uint8_t>(port);
    return packet;
}

// A ring on a free port, datagrams sent to it over loopback. Needs CAP_NET_RAW (the tests run
// as root).
class PacketRingTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_port = free_udp_port();
        ASSERT_NE(m_port, 0);
    }

    // Every datagram of every block the ring hands over within `timeout`, until `count` came.
    std::vector<Bytes> take(PacketRing& ring, std::size_t count,
                            std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::vector<Bytes> datagrams;
        test::poll_until(
            [&] {
                while (ring.read_block([&](const std::uint8_t* data, std::uint64_t length) {
                    datagrams.emplace_back(data, data + length);
                })) {
                }
                return datagrams.size() >= count;
            },
            timeout);
        return datagrams;
    }

    std::uint16_t m_port = 0;
};

TEST_F(PacketRingTest, OpenLogsTheRingsShape) {
    test::LogCapture capture;
    PacketRing ring;

    ASSERT_TRUE(ring.open(m_port, 3 * PacketRing::BLOCK_SIZE - 1));

    EXPECT_EQ(ring.size(), 3u * PacketRing::BLOCK_SIZE);
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"PACKET_RING[" + std::to_string(ring.fd()) +
                                        "]: receiving port " + std::to_string(m_port) +
                                        " through 3 blocks of 131072 bytes"}));
}

TEST_F(PacketRingTest, DatagramsToThePortComeThroughWholeAndInOrder) {
    PacketRing ring;
    ASSERT_TRUE(ring.open(m_port, 1048576));
    const std::uint16_t other_port = free_udp_port();
    test::UdpSender sender(m_port);
    test::UdpSender elsewhere(other_port);
    std::vector<Bytes> sent;
    for (std::uint8_t i = 0; i < 20; ++i) {
        sent.push_back(Bytes(100 + i, i));
        ASSERT_TRUE(sender.send(sent.back()));
        ASSERT_TRUE(elsewhere.send(Bytes(10, 0xee)));
    }
    // An empty datagram is passed over, as the socket's loops pass it over.
    ASSERT_TRUE(sender.send(Bytes{}));
    // The largest datagram the system sends over loopback in one piece.
    sent.push_back(Bytes(65507, 0x5a));
    ASSERT_TRUE(sender.send(sent.back()));

    EXPECT_EQ(take(ring, sent.size()), sent);
    EXPECT_EQ(ring.take_discarded(), 0u);
}

// The filter of `text`; fails the test when it does not parse.
SourceFilter sources(const std::string& text) {
    SourceFilter filter;
    std::string error;
    EXPECT_TRUE(SourceFilter::try_parse(text, filter, error)) << error;
    return filter;
}

// Sends datagrams 0 to 19 alternately from 127.0.0.2 and 127.0.0.1 and returns what the ring
// took: with `text` allowing 127.0.0.1 alone, the odd ones.
std::vector<Bytes> take_from_two_senders(std::uint16_t port, const std::string& text,
                                         std::vector<Bytes>& from_loopback) {
    PacketRing ring;
    EXPECT_TRUE(ring.open(port, 1048576, sources(text)));
    test::UdpSender refused(port, 0x7F000002);
    test::UdpSender allowed(port, 0x7F000001);
    for (std::uint8_t i = 0; i < 20; ++i) {
        EXPECT_TRUE((i % 2 == 0 ? refused : allowed).send(Bytes(50 + i, i)));
        if (i % 2 == 1) {
            from_loopback.push_back(Bytes(50 + i, i));
        }
    }
    // The last datagram from the refused sender: once the ring has the allowed one after it,
    // it has had its chance.
    EXPECT_TRUE(refused.send(Bytes(5, 0xee)));
    EXPECT_TRUE(allowed.send(Bytes(5, 0xff)));
    from_loopback.push_back(Bytes(5, 0xff));
    std::vector<Bytes> datagrams;
    test::poll_until(
        [&] {
            while (ring.read_block([&](const std::uint8_t* data, std::uint64_t length) {
                datagrams.emplace_back(data, data + length);
            })) {
            }
            return !datagrams.empty() && datagrams.back() == from_loopback.back();
        },
        std::chrono::seconds(5));
    EXPECT_EQ(ring.take_discarded(), 0u);
    return datagrams;
}

TEST_F(PacketRingTest, OnlyAllowedSendersReachTheRing) {
    std::vector<Bytes> allowed;
    EXPECT_EQ(take_from_two_senders(m_port, "127.0.0.1/32", allowed), allowed);
}

// 512 networks, the allowed one last: the program's longest form, past every 8-bit jump.
TEST_F(PacketRingTest, TheLastOfTheMostNetworksStillAllows) {
    std::string text;
    for (std::size_t i = 0; i + 1 < SourceFilter::MAX_NETWORKS; ++i) {
        text += "10." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0/24, ";
    }
    text += "127.0.0.1";
    std::vector<Bytes> allowed;
    EXPECT_EQ(take_from_two_senders(m_port, text, allowed), allowed);
}

TEST_F(PacketRingTest, WaitEndsWithABlockOrTheDoorbell) {
    PacketRing ring;
    ASSERT_TRUE(ring.open(m_port, 1048576));
    const int doorbell = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    const std::uint64_t one = 1;
    ASSERT_EQ(::write(doorbell, &one, sizeof one), 8);

    EXPECT_EQ(ring.wait(doorbell), Socket::Wake::DOORBELL);

    std::uint64_t rung = 0;
    ASSERT_EQ(::read(doorbell, &rung, sizeof rung), 8);
    ASSERT_TRUE(test::send_udp(m_port, Bytes{1, 2, 3}));
    // The block is handed over once it is some milliseconds old.
    EXPECT_EQ(ring.wait(doorbell), Socket::Wake::DATAGRAM);
    // A block that waits wins over the bell.
    ASSERT_EQ(::write(doorbell, &one, sizeof one), 8);
    EXPECT_EQ(ring.wait(doorbell), Socket::Wake::DATAGRAM);
    EXPECT_EQ(take(ring, 1), (std::vector<Bytes>{{1, 2, 3}}));
    ::close(doorbell);
}

TEST_F(PacketRingTest, DropsAreWhatAFullRingCouldNotTake) {
    PacketRing ring;
    ASSERT_TRUE(ring.open(m_port, PacketRing::BLOCK_SIZE));
    ASSERT_EQ(ring_drops(ring.fd()), 0u);
    test::UdpSender sender(m_port);
    // Some 1400 bytes a datagram with the system's headers: one block holds fewer than 100.
    const std::size_t count = 300;
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(sender.send(Bytes(1300, static_cast<std::uint8_t>(i))));
    }

    const std::size_t received = take(ring, count, std::chrono::milliseconds(200)).size();
    const std::optional<std::uint32_t> drops = ring_drops(ring.fd());

    ASSERT_TRUE(drops.has_value());
    EXPECT_LT(received, count);
    EXPECT_EQ(received + *drops, count);
    // The count restarts at every read.
    EXPECT_EQ(ring_drops(ring.fd()), 0u);
}

TEST_F(PacketRingTest, PacketsFailingTheChecksAreCountedAsDiscarded) {
    PacketRing ring;
    ASSERT_TRUE(ring.open(m_port, 1048576));
    ASSERT_TRUE(test::send_raw_ipv4(test::udp_packet_with_broken_length(m_port)));
    ASSERT_TRUE(test::send_udp(m_port, Bytes{7}));

    // The good datagram comes after the bad one, so the bad one was looked at by then.
    EXPECT_EQ(take(ring, 1), (std::vector<Bytes>{{7}}));
    EXPECT_EQ(ring.take_discarded(), 1u);
    EXPECT_EQ(ring.take_discarded(), 0u);
}

TEST_F(PacketRingTest, PacketsWithAWrongHeaderChecksumAreCountedAsDiscarded) {
    PacketRing ring;
    ASSERT_TRUE(ring.open(m_port, 1048576));
    // The header's words (127.0.0.1 both ways, 33 bytes of UDP) sum to 0x8336; its complement,
    // 0x7cc9, is the right checksum.
    ASSERT_TRUE(send_ipv4_frame_on_loopback(loopback_packet(m_port, 0x7cc8)));
    ASSERT_TRUE(send_ipv4_frame_on_loopback(loopback_packet(m_port, 0x7cc9)));

    // Only the right one comes through; the wrong one was looked at before it.
    EXPECT_EQ(take(ring, 1), (std::vector<Bytes>{{0x51, 0x4d, 0x01, 0x02, 0x03}}));
    EXPECT_EQ(ring.take_discarded(), 1u);
}

}  // namespace
}  // namespace qm::net
