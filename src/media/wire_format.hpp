#pragma once

#include <cstdint>

// The numbers of the recorder's UDP datagram format that do not follow from a record's layout:
// the marker, the version, the length bounds, the packet type codes and the flag bits. The packet
// records that read datagrams and the encoder that writes them both take them from here, so the
// two sides cannot drift apart. Constants only; any thread.

namespace qm::media {

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

// Bits of the header's 16-bit flags; bit 0 is the lowest bit of byte 6.
inline constexpr std::uint16_t FLAG_OUTBOUND = 0x0001;    // all types: the side
inline constexpr std::uint16_t FLAG_CONTROL_FT = 0x0080;  // control: carries `ft` (with byte 7 = 0)
inline constexpr std::uint16_t FLAG_START_N = 0x4000;     // start: shown as "N"
inline constexpr std::uint16_t FLAG_START_RULE = 0x8000;  // start: `rule` is meaningful ("R")
inline constexpr std::uint16_t FLAG_DATA_S = 0x8000;      // data: shown as "S"

}  // namespace qm::media
