#pragma once

#include <cstddef>
#include <cstdint>

#include "media/packet_header.hpp"

// The control packet (type 0x84), which reports a change of a session's state: the header alone
// (40 bytes), or the header and two `ft` bytes (42 bytes) when flag bit 7 is set and byte 7 is 0.
// A view read in place from a packet buffer; see "media/packet_header.hpp" for the rules every
// record follows.

namespace qm::media {

struct __attribute__((packed)) ControlPacket {
    PacketHeader header;
    // Part of the datagram only when `has_ft()`.
    std::uint8_t ft[2];

    bool has_ft() const {
        return (header.flags & FLAG_CONTROL_FT) != 0 && header.flags_high_byte() == 0;
    }

    // The length a datagram with this header must have.
    std::uint64_t required_length() const {
        return has_ft() ? sizeof(ControlPacket) : sizeof(PacketHeader);
    }
};

static_assert(sizeof(ControlPacket) == 42);
static_assert(offsetof(ControlPacket, header) == 0);
static_assert(offsetof(ControlPacket, ft) == 40);

}  // namespace qm::media
