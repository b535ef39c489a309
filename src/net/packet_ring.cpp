#include "net/packet_ring.hpp"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "log/logger.hpp"
#include "net/system_error.hpp"

namespace qm::net {
namespace {

constexpr std::size_t IPV4_HEADER_MIN = 20;
constexpr std::size_t UDP_HEADER = 8;
constexpr std::uint8_t UDP_PROTOCOL = 17;
// The "more fragments" flag and the fragment offset.
constexpr std::uint16_t FRAGMENT_BITS = 0x3fff;
// Room for the system's per-packet header in the ring's frame bookkeeping; a block holds
// packets of any size regardless.
constexpr std::uint32_t FRAME_SIZE = 2048;
// The filter passes a whole datagram: the largest fits a block.
constexpr std::uint32_t TAKE_WHOLE = 0x40000;

std::uint16_t read16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

// The ones' complement sum of `bytes` added to `sum`, 16 bits at a time (an odd last byte is
// padded with zero).
std::uint32_t add_words(std::uint32_t sum, std::span<const std::uint8_t> bytes) {
    std::size_t i = 0;
    for (; i + 1 < bytes.size(); i += 2) {
        sum += read16(bytes.data() + i);
    }
    if (i < bytes.size()) {
        sum += static_cast<std::uint32_t>(bytes[i]) << 8;
    }
    return sum;
}

// True when the ones' complement sum `sum` (with its carries not yet folded in) is all ones, as
// it is over a header or datagram whose checksum holds.
bool sums_to_all_ones(std::uint32_t sum) {
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return sum == 0xffff;
}

// The filter, run by the system on every IPv4 packet before it is copied into the ring (offset
// 0 is the IP header): packets for this host, UDP, unfragmented, to `port`, and from a sender in
// one of `sources`' networks when it has any. The checks of the packet come first and jump to the
// one drop right after them, so that no conditional jump (8-bit offsets) grows with the number of
// networks; each network then ends in an accept of its own, and the last falls through to a drop.
std::vector<sock_filter> port_filter(std::uint16_t port, const SourceFilter& sources) {
    constexpr std::uint8_t DROP = 9;
    // Jump offsets count from the next instruction.
    const auto to_drop = [](std::uint8_t from) {
        return static_cast<std::uint8_t>(DROP - from - 1);
    };
    std::vector<sock_filter> code = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_HOST, 0, to_drop(1)),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, UDP_PROTOCOL, 0, to_drop(3)),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, FRAGMENT_BITS, to_drop(5), 0),
        BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
        BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, port, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    if (sources.empty()) {
        code.push_back(BPF_STMT(BPF_RET | BPF_K, TAKE_WHOLE));
        return code;
    }
    // The source address, kept in X while A is masked for each network in turn.
    code.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 12));
    code.push_back(BPF_STMT(BPF_MISC | BPF_TAX, 0));
    for (const SourceFilter::Network& network : sources.networks()) {
        code.push_back(BPF_STMT(BPF_MISC | BPF_TXA, 0));
        code.push_back(BPF_STMT(BPF_ALU | BPF_AND | BPF_K, network.mask));
        code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, network.address, 0, 1));
        code.push_back(BPF_STMT(BPF_RET | BPF_K, TAKE_WHOLE));
    }
    code.push_back(BPF_STMT(BPF_RET | BPF_K, 0));
    return code;
}

}  // namespace

bool udp_checksum_holds(std::span<const std::uint8_t> packet) {
    const std::size_t header = (packet[0] & 0x0f) * 4u;
    const std::span<const std::uint8_t> datagram =
        packet.subspan(header, read16(&packet[header + 4]));
    if (read16(&datagram[6]) == 0) {
        return true;
    }
    // The pseudo-header: both addresses, the protocol and the UDP length.
    std::uint32_t sum = add_words(0, packet.subspan(12, 8));
    sum += UDP_PROTOCOL + static_cast<std::uint32_t>(datagram.size());
    return sums_to_all_ones(add_words(sum, datagram));
}

bool ipv4_header_checksum_holds(std::span<const std::uint8_t> packet) {
    return sums_to_all_ones(add_words(0, packet.first((packet[0] & 0x0f) * 4u)));
}

std::optional<std::span<const std::uint8_t>> udp_payload(std::span<const std::uint8_t> packet,
                                                         bool checksum_trusted) {
    if (packet.size() < IPV4_HEADER_MIN || packet[0] >> 4 != 4) {
        return std::nullopt;
    }
    const std::size_t header = (packet[0] & 0x0f) * 4u;
    const std::size_t total = read16(&packet[2]);
    if (header < IPV4_HEADER_MIN || total > packet.size() || total < header + UDP_HEADER ||
        packet[9] != UDP_PROTOCOL || (read16(&packet[6]) & FRAGMENT_BITS) != 0) {
        return std::nullopt;
    }
    const std::size_t datagram = read16(&packet[header + 4]);
    if (datagram < UDP_HEADER || header + datagram > total) {
        return std::nullopt;
    }
    // The ring takes packets before the system's IP layer has checked them; no card or system
    // vouches for this checksum.
    if (!ipv4_header_checksum_holds(packet)) {
        return std::nullopt;
    }
    if (!checksum_trusted && !udp_checksum_holds(packet.first(total))) {
        return std::nullopt;
    }
    return packet.subspan(header + UDP_HEADER, datagram - UDP_HEADER);
}

PacketRing::~PacketRing() {
    close();
}

bool PacketRing::open(std::uint16_t port, std::uint64_t size, const SourceFilter& sources) {
    const std::uint64_t blocks = size == 0 ? 1 : (size + BLOCK_SIZE - 1) / BLOCK_SIZE;
    // Nothing arrives before the bind names a protocol, so the filter is in place first.
    m_fd = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_ll local = {AF_PACKET, htons(ETH_P_IP), 0, 0, 0, 0, {}};
    if (m_fd == -1 || !map_blocks(static_cast<std::uint32_t>(blocks)) ||
        !attach_filter(port, sources) ||
        ::bind(m_fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        const SystemError error{errno};
        QM_LOG_WARNING("PACKET_RING[" << (m_fd == -1 ? " " : std::to_string(m_fd))
                                      << "]: failed to set up a packet ring, " << error
                                      << "; receiving through the socket (the ring needs "
                                         "CAP_NET_RAW)");
        close();
        return false;
    }
    QM_LOG_SYSTEM("PACKET_RING[" << m_fd << "]: receiving port " << port << " through " << m_blocks
                                 << " blocks of " << BLOCK_SIZE << " bytes");
    return true;
}

bool PacketRing::map_blocks(std::uint32_t blocks) {
    const int version = TPACKET_V3;
    if (::setsockopt(m_fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0) {
        return false;
    }
    tpacket_req3 request{};
    request.tp_block_size = BLOCK_SIZE;
    request.tp_block_nr = blocks;
    request.tp_frame_size = FRAME_SIZE;
    request.tp_frame_nr = BLOCK_SIZE / FRAME_SIZE * blocks;
    request.tp_retire_blk_tov = BLOCK_TIMEOUT_MS;
    if (::setsockopt(m_fd, SOL_PACKET, PACKET_RX_RING, &request, sizeof request) != 0) {
        return false;
    }
    const std::size_t bytes = static_cast<std::size_t>(blocks) * BLOCK_SIZE;
    // Populated now, so that the ring's memory is taken at start and not on the first bursts.
    void* map = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, m_fd, 0);
    if (map == MAP_FAILED) {
        return false;
    }
    m_map = static_cast<std::uint8_t*>(map);
    m_blocks = blocks;
    m_next = 0;
    return true;
}

bool PacketRing::attach_filter(std::uint16_t port, const SourceFilter& sources) {
    std::vector<sock_filter> filter = port_filter(port, sources);
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    return ::setsockopt(m_fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

Socket::Wake PacketRing::wait(int doorbell) {
    int failure = 0;
    const Socket::Wake wake = wait_readable(m_fd, doorbell, failure, WAIT_TIMEOUT_MS);
    if (failure != 0) {
        const SystemError error{failure};
        QM_LOG_ERROR("PACKET_RING[" << m_fd << "]: failed to wait for a block, " << error);
    }
    return wake;
}

void PacketRing::log_interrupted() const {
    QM_LOG_INFO("PACKET_RING[" << m_fd << "]: system interrupted call");
}

void PacketRing::close() {
    if (m_map != nullptr) {
        ::munmap(m_map, m_blocks * BLOCK_SIZE);
        m_map = nullptr;
    }
    m_blocks = 0;
    if (m_fd != -1) {
        ::close(m_fd);
        m_fd = -1;
    }
}

std::optional<std::uint32_t> ring_drops(int fd) {
    tpacket_stats_v3 counts{};
    socklen_t size = sizeof counts;
    if (fd < 0 || ::getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &counts, &size) != 0) {
        return std::nullopt;
    }
    return counts.tp_drops;
}

}  // namespace qm::net
