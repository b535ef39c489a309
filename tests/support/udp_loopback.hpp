#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qm::test {

// A UDP port that was free a moment ago: a probe socket bound to port 0 on the loopback address,
// read back with getsockname, then closed. Another process may take it in between; tests accept
// that small window. Returns 0 when no socket could be bound.
std::uint16_t free_udp_port();

// Sends one datagram to 127.0.0.1:`port` from a fresh socket; false when the send failed or was
// cut short.
bool send_udp(std::uint16_t port, const void* data, std::size_t size);
bool send_udp(std::uint16_t port, const std::vector<std::uint8_t>& bytes);

// An IPv4 packet from 127.0.0.1:4000 to 127.0.0.1:`port` carrying a UDP datagram whose length
// field runs one byte past the packet: the system's UDP refuses it, a filter on the port passes
// it.
std::vector<std::uint8_t> udp_packet_with_broken_length(std::uint16_t port);

// Writes `packet`, a whole IPv4 packet from its header on, to 127.0.0.1 through a raw socket (the
// system fills in only the IP length and checksum); false when that failed. Needs CAP_NET_RAW.
bool send_raw_ipv4(const std::vector<std::uint8_t>& packet);

// One socket that sends datagrams to 127.0.0.1:`port`, for tests that send many; with `from`
// (host order, such as 0x7F000002 for 127.0.0.2) it is bound to that source address first, and
// when that fails every send fails. Threads: used by one thread at a time.
class UdpSender {
public:
    explicit UdpSender(std::uint16_t port, std::uint32_t from = 0);
    ~UdpSender();

    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    // False when the send failed or was cut short.
    bool send(const std::vector<std::uint8_t>& bytes);

    // The port the system bound the socket to, host order; 0 before the first send (or bind).
    std::uint16_t local_port() const;

    std::uint64_t sent() const { return m_sent; }
    std::uint64_t failed() const { return m_failed; }

private:
    int m_socket;
    std::uint16_t m_port;
    std::uint64_t m_sent = 0;
    std::uint64_t m_failed = 0;
};

}  // namespace qm::test
