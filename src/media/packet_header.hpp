#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "media/wire_format.hpp"

// The 40-byte header that opens every recorder packet; the format's constants are in
// "media/wire_format.hpp".
//
// Packet records are read in place: a `reinterpret_cast` of the bytes of a received datagram, with
// no copy and no byte-order conversion. The records are therefore packed (alignment 1, so any
// address will do) and hold their fields in wire order; the wire is little-endian, and so must the
// host be. A record is only a view: it owns nothing and is valid as long as the bytes under it.
// Accessors are plain reads of those bytes and may be called from any thread that may read them.

namespace qm::media {

static_assert(std::endian::native == std::endian::little,
              "packet records are read in place from little-endian datagrams");

struct __attribute__((packed)) PacketHeader {
    std::uint32_t marker;
    std::uint8_t type;
    std::uint8_t version;
    std::uint16_t flags;
    std::uint64_t id;
    std::uint8_t uuid[16];
    std::uint64_t mt;

    // 0 inbound, 1 outbound.
    std::uint8_t side() const { return static_cast<std::uint8_t>(flags & FLAG_OUTBOUND); }
    bool is_outbound() const { return (flags & FLAG_OUTBOUND) != 0; }
    // Byte 7 of the packet, the upper half of `flags`, which traces print as a number.
    std::uint8_t flags_high_byte() const { return static_cast<std::uint8_t>(flags >> 8); }
};

static_assert(sizeof(PacketHeader) == 40);
static_assert(sizeof(PacketHeader) == PACKET_MIN_LENGTH);
static_assert(alignof(PacketHeader) == 1);
static_assert(offsetof(PacketHeader, marker) == 0);
static_assert(offsetof(PacketHeader, type) == 4);
static_assert(offsetof(PacketHeader, version) == 5);
static_assert(offsetof(PacketHeader, flags) == 6);
static_assert(offsetof(PacketHeader, id) == 8);
static_assert(offsetof(PacketHeader, uuid) == 16);
static_assert(offsetof(PacketHeader, mt) == 32);

}  // namespace qm::media
