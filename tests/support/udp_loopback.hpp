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

}  // namespace qm::test
