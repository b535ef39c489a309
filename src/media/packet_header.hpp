#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

// The 40-byte header that opens every recorder packet, and the constants of the wire format.
//
// Packet records are read in place: a `reinterpret_cast` of the bytes of a received datagram, with
// no copy and no byte-order conversion. The records are therefore packed (alignment 1, so any
// address will do) and hold their fields in wire order; the wire is little-endian, and so must the
// host be. A record is only a view: it owns nothing and is valid as long as the bytes under it.
// Accessors are plain reads of those bytes and may be called from any thread that may read them.

namespace qm::media {

static_assert(std::endian::native == std::endian::little,
              "packet records are read in place from little-endian datagrams");

// Bytes FF 00 FF 00 on the wire.
inline constexpr std::uint32_t PACKET_MARKER = 0x00FF00FF;
inline constexpr std::uint8_t PACKET_VERSION = 1;
// Bounds of a datagram, whatever its type.
inline constexpr std::uint64_t PACKET_MIN_LENGTH = 40;
inline constexpr std::uint64_t PACKET_MAX_LENGTH = 1376;

enum class PacketType : std::uint8_t {
    START = 0x81,
    TERMINATE = 0x82,
    DATA = 0x83,
    CONTROL = 0x84,
};

// Bits of `PacketHeader::flags`; bit 0 is the lowest bit of byte 6.
inline constexpr std::uint16_t FLAG_OUTBOUND = 0x0001;    // all types: the side
inline constexpr std::uint16_t FLAG_CONTROL_FT = 0x0080;  // control: carries `ft` (with byte 7 = 0)
inline constexpr std::uint16_t FLAG_START_N = 0x4000;     // start: shown as "N"
inline constexpr std::uint16_t FLAG_START_RULE = 0x8000;  // start: `rule` is meaningful ("R")
inline constexpr std::uint16_t FLAG_DATA_S = 0x8000;      // data: shown as "S"

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
static_assert(alignof(PacketHeader) == 1);
static_assert(offsetof(PacketHeader, marker) == 0);
static_assert(offsetof(PacketHeader, type) == 4);
static_assert(offsetof(PacketHeader, version) == 5);
static_assert(offsetof(PacketHeader, flags) == 6);
static_assert(offsetof(PacketHeader, id) == 8);
static_assert(offsetof(PacketHeader, uuid) == 16);
static_assert(offsetof(PacketHeader, mt) == 32);

}  // namespace qm::media
