#pragma once

#include <cstddef>
#include <cstdint>

#include "media/packet_header.hpp"

// The data packet (type 0x83), which carries one block of media of one side of a call leg: 50
// fixed bytes followed by `num` 16-bit units. A view read in place from a packet buffer; see
// "media/packet_header.hpp" for the rules every record follows.

namespace qm::media {

struct __attribute__((packed)) DataPacket {
    PacketHeader header;
    std::uint32_t seq;
    std::uint32_t off;
    std::uint16_t num;

    bool has_s_flag() const { return (header.flags & FLAG_DATA_S) != 0; }

    // The length a datagram with this header must have.
    // REQUIRES: the record lies in a buffer of at least sizeof(DataPacket) bytes.
    std::uint64_t required_length() const { return sizeof(DataPacket) + payload_size(); }

    // Bytes of media behind the fixed part: 2 x `num`.
    std::uint32_t payload_size() const { return 2u * num; }

    // The media block, `payload_size()` bytes (at any alignment).
    // REQUIRES: the datagram's length equals `required_length()`.
    const std::uint8_t* payload() const {
        return reinterpret_cast<const std::uint8_t*>(this) + sizeof(DataPacket);
    }
};

static_assert(sizeof(DataPacket) == 50);
static_assert(offsetof(DataPacket, header) == 0);
static_assert(offsetof(DataPacket, seq) == 40);
static_assert(offsetof(DataPacket, off) == 44);
static_assert(offsetof(DataPacket, num) == 48);

}  // namespace qm::media
