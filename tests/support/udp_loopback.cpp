#include "udp_loopback.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qm::test {
namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

bool send_to(int socket, std::uint16_t port, const void* data, std::size_t size) {
    const sockaddr_in address = loopback(port);
    const ssize_t sent = ::sendto(socket, data, size, 0,
                                  reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return sent >= 0 && static_cast<std::size_t>(sent) == size;
}

}  // namespace

std::uint16_t free_udp_port() {
    const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    std::uint16_t port = 0;
    if (::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(probe);
    return port;
}

bool send_udp(std::uint16_t port, const void* data, std::size_t size) {
    const int sender = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool sent = send_to(sender, port, data, size);
    ::close(sender);
    return sent;
}

std::vector<std::uint8_t> udp_packet_with_broken_length(std::uint16_t port) {
    const auto high = static_cast<std::uint8_t>(port >> 8);
    const auto low = static_cast<std::uint8_t>(port);
    // 20 bytes of IP header, 8 of UDP header, 5 of payload; the UDP length says 14.
    return {0x45, 0x00, 0x00, 0x21, 0x00, 0x01, 0x00, 0x00, 0x40, 0x11, 0x00,
            0x00, 0x7f, 0x00, 0x00, 0x01, 0x7f, 0x00, 0x00, 0x01, 0x0f, 0xa0,
            high, low,  0x00, 0x0e, 0x00, 0x00, 0x51, 0x4d, 0x01, 0x02, 0x03};
}

bool send_raw_ipv4(const std::vector<std::uint8_t>& packet) {
    const int raw = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
    if (raw == -1) {
        return false;
    }
    const sockaddr_in address = loopback(0);
    const ssize_t sent = ::sendto(raw, packet.data(), packet.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::close(raw);
    return sent >= 0 && static_cast<std::size_t>(sent) == packet.size();
}

bool send_udp(std::uint16_t port, const std::vector<std::uint8_t>& bytes) {
    return send_udp(port, bytes.data(), bytes.size());
}

UdpSender::UdpSender(std::uint16_t port, std::uint32_t from)
    : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), m_port(port) {
    if (from == 0) {
        return;
    }
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = htonl(from);
    if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&source), sizeof source) != 0) {
        ::close(m_socket);
        m_socket = -1;
    }
}

std::uint16_t UdpSender::local_port() const {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    if (::getsockname(m_socket, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        return 0;
    }
    return ntohs(local.sin_port);
}

UdpSender::~UdpSender() {
    ::close(m_socket);
}

bool UdpSender::send(const std::vector<std::uint8_t>& bytes) {
    const bool sent = send_to(m_socket, m_port, bytes.data(), bytes.size());
    ++(sent ? m_sent : m_failed);
    return sent;
}

}  // namespace qm::test
