#pragma once

#include <cstddef>
#include <cstdint>

#include "media/packet_header.hpp"

// The terminate packet (type 0x82), which closes the session of a call leg: the header alone. A
// view read in place from a packet buffer; see "media/packet_header.hpp" for the rules every
// record follows.

namespace qm::media {

struct __attribute__((packed)) TerminatePacket {
    PacketHeader header;

    // The length a datagram with this header must have.
    std::uint64_t required_length() const { return sizeof(TerminatePacket); }
};

static_assert(sizeof(TerminatePacket) == 40);
static_assert(offsetof(TerminatePacket, header) == 0);

}  // namespace qm::media
