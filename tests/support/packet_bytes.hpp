#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

#include "media/packet_encoder.hpp"

namespace qm::test {

// A datagram copied into a zero-filled, 8-byte aligned buffer of the largest datagram's size, as a
// pooled packet buffer holds it, so that a test can read it through a packet record in place.
// Bytes beyond 1376 are cut off.
class PacketBytes {
public:
    explicit PacketBytes(const media::Datagram& datagram) {
        std::copy_n(datagram.begin(), std::min(datagram.size(), m_bytes.size()), m_bytes.begin());
    }

    template <typename Packet>
    Packet& as() {
        return *reinterpret_cast<Packet*>(m_bytes.data());
    }

private:
    alignas(8) std::array<std::uint8_t, 1376> m_bytes{};
};

}  // namespace qm::test
