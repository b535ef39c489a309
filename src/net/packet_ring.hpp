#pragma once

// A memory-mapped ring of packet blocks (a TPACKET_V3 packet socket) through which the recorder
// can take its datagrams instead of reading them from its UDP socket one call at a time. The
// system copies every IPv4 UDP datagram addressed to this host and to the port into the ring, in
// the receive path itself, and hands a block over when it is full or some milliseconds old; the
// receiving thread then walks the block in place and gives it back, one system call per block
// instead of one per datagram. The UDP socket stays bound to the port (so that senders get no
// "port unreachable") and receives its copy too, which the receiving thread drains in large
// batches without copying the payloads: a socket that refused its copies instead (a filter that
// takes nothing) would have the system count every datagram as a UDP receive error.
//
// What the ring sees has not been through the system's IP and UDP checks, so every packet is
// checked again here: an IPv4 header whose checksum holds, UDP, no fragment, consistent lengths,
// and the UDP checksum unless the system vouches for it. A packet that fails is counted as
// discarded and not handed on. Datagrams that arrive in fragments are not taken at all (the filter
// passes none; none of them fits the largest media packet anyway).
//
// The ring takes its copy before the system's firewall (netfilter's INPUT chain) sees the
// datagram: a rule that drops datagrams to the port does not keep them from the ring.
//
// Needs CAP_NET_RAW. Threads: opened, read and closed by the receiving thread; `take_discarded`
// and the drop count may be called from any thread while it is open.

#include <linux/if_packet.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "net/net_socket.hpp"
#include "net/source_filter.hpp"

namespace qm::net {

// The UDP payload of one IPv4 packet, `packet` holding its bytes from the IP header on, after the
// checks above; nothing when a check fails. `checksum_trusted` skips the checksum (the system
// computed or verified it).
std::optional<std::span<const std::uint8_t>> udp_payload(std::span<const std::uint8_t> packet,
                                                         bool checksum_trusted);

// True when the header checksum of the IPv4 packet `packet` holds.
// REQUIRES: `packet` holds a whole IPv4 header of its stated length.
bool ipv4_header_checksum_holds(std::span<const std::uint8_t> packet);

// True when the UDP checksum of the unfragmented IPv4 packet `packet` holds (or is 0: none).
// REQUIRES: `packet` holds a whole IPv4 header of its stated length and the whole UDP datagram.
bool udp_checksum_holds(std::span<const std::uint8_t> packet);

class PacketRing {
public:
    // One block: the unit the system hands over. 128 KiB holds some 300 datagrams of a call.
    static constexpr std::uint32_t BLOCK_SIZE = 131072;
    // A block that is not full is handed over this long after its first packet, so that a quiet
    // link is not held back.
    static constexpr std::uint32_t BLOCK_TIMEOUT_MS = 4;

    PacketRing() = default;
    virtual ~PacketRing();

    PacketRing(const PacketRing&) = delete;
    PacketRing& operator=(const PacketRing&) = delete;

    // Sets up a ring of `size` bytes (rounded up to whole blocks) for the UDP datagrams to `port`
    // (host order) and starts taking them; with a non-empty `sources` only those from its
    // networks, so that the others never reach the ring. Logs the ring's shape at SYSTEM. On
    // failure logs a WARNING, holds no descriptor and returns false.
    [[nodiscard]] bool open(std::uint16_t port, std::uint64_t size,
                            const SourceFilter& sources = SourceFilter());

    // When the system has handed over the next block, gives each datagram in it to
    // `consume(const std::uint8_t* data, std::uint64_t length)`, in arrival order, hands the
    // block back and returns true; false when the block is still the system's.
    template <typename Consume>
    [[nodiscard]] bool read_block(Consume&& consume);

    // Datagrams the ring does not take (from a refused source, or in fragments) wake nobody: a
    // wait ends after this long at the latest, so that the socket beside the ring is drained of
    // them.
    static constexpr int WAIT_TIMEOUT_MS = 100;

    // Blocks until a block is handed over or `doorbell` is readable or a signal arrives (DOORBELL),
    // or for WAIT_TIMEOUT_MS.
    Socket::Wake wait(int doorbell);

    // Logs, at INFO, that a signal cut a wait short.
    void log_interrupted() const;

    // Packets that failed the checks since the last call (or since the ring was opened). Any
    // thread, while the ring is open.
    std::uint64_t take_discarded() { return m_discarded.exchange(0, std::memory_order_relaxed); }

    // Bytes of the ring, 0 while closed.
    std::uint64_t size() const { return static_cast<std::uint64_t>(m_blocks) * BLOCK_SIZE; }

    std::int32_t fd() const { return m_fd; }

    // Unmaps the ring and closes the descriptor; harmless when closed.
    void close();

private:
    // Sets up the ring on the open descriptor; false (with errno set) at the first failing step.
    [[nodiscard]] bool map_blocks(std::uint32_t blocks);
    // Takes the datagrams of `port` (from `sources`) only.
    [[nodiscard]] bool attach_filter(std::uint16_t port, const SourceFilter& sources);

    tpacket_block_desc* block(std::size_t index) const {
        return reinterpret_cast<tpacket_block_desc*>(m_map + index * BLOCK_SIZE);
    }

    std::int32_t m_fd = -1;
    std::uint8_t* m_map = nullptr;
    std::size_t m_blocks = 0;
    // The block to read next.
    std::size_t m_next = 0;
    // Counted by the receiving thread, taken by the report's; relaxed because it is only reported.
    std::atomic<std::uint64_t> m_discarded{0};
};

template <typename Consume>
bool PacketRing::read_block(Consume&& consume) {
    tpacket_block_desc* const current = block(m_next);
    // The status word is shared with the system: acquire, so that the block's packets, written
    // before the system set TP_STATUS_USER, are seen whole.
    std::atomic_ref<std::uint32_t> status(current->hdr.bh1.block_status);
    if ((status.load(std::memory_order_acquire) & TP_STATUS_USER) == 0) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(current);
    std::uint32_t offset = current->hdr.bh1.offset_to_first_pkt;
    for (std::uint32_t i = 0; i < current->hdr.bh1.num_pkts; ++i) {
        const auto& header = *reinterpret_cast<const tpacket3_hdr*>(bytes + offset);
        const bool trusted =
            (header.tp_status & (TP_STATUS_CSUMNOTREADY | TP_STATUS_CSUM_VALID)) != 0;
        const std::span<const std::uint8_t> packet(bytes + offset + header.tp_net,
                                                   header.tp_snaplen);
        const std::optional<std::span<const std::uint8_t>> payload =
            header.tp_snaplen == header.tp_len ? udp_payload(packet, trusted) : std::nullopt;
        if (payload && !payload->empty()) {
            consume(payload->data(), static_cast<std::uint64_t>(payload->size()));
        } else if (!payload) {
            m_discarded.fetch_add(1, std::memory_order_relaxed);
        }
        offset += header.tp_next_offset;
    }
    // Release: our reads of the block are done before the system may fill it again.
    status.store(TP_STATUS_KERNEL, std::memory_order_release);
    m_next = m_next + 1 == m_blocks ? 0 : m_next + 1;
    return true;
}

// Datagrams the system could not put into the ring of `fd` since the last call (the count
// restarts at every read), because no block was free; nothing when it cannot be read.
std::optional<std::uint32_t> ring_drops(int fd);

}  // namespace qm::net
