#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "media/wire_format.hpp"

// Builds recorder datagrams of the four packet types from field values, for the `quillmar send`
// tool, the tests and the fuzz seeds, so that nobody spells packet bytes by hand. The bytes are
// written one by one in little-endian order at their wire offsets, independently of the host and of
// the in-place records of "media/packet_header.hpp", so reading an encoded packet through a record
// checks that record's layout; the codes, flags and marker come from "media/wire_format.hpp", which
// the records share.
//
// Every fields struct has defaults that make a valid packet; the knobs of `HeaderFields` (marker,
// version, type, length) and the per-type length fields (`call_id_len`, `num`) break one rule at a
// time. Pure functions; any thread.

namespace qm::media {

using Datagram = std::vector<std::uint8_t>;
using Uuid = std::array<std::uint8_t, 16>;

inline constexpr Uuid DEFAULT_UUID = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                      0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};

struct HeaderFields {
    std::uint32_t marker = PACKET_MARKER;
    // Unset: the code of the packet type being encoded.
    std::optional<std::uint8_t> type{};
    std::uint8_t version = PACKET_VERSION;
    std::uint16_t flags = 0;
    std::uint64_t id = 0x0123456789abcdefULL;
    Uuid uuid = DEFAULT_UUID;
    std::uint64_t mt = 1000;
    // Set: the datagram is cut to, or padded with zero bytes to, this many bytes after encoding.
    std::optional<std::size_t> length{};
};

struct StartFields {
    HeaderFields header;
    std::uint64_t ts = 1633954638004211ULL;
    std::uint64_t sync_ts = 1633954638000000ULL;
    std::uint64_t sync_mt = 500;
    std::uint64_t rule = 0;
    std::array<std::uint8_t, 6> unread = {};
    // Recording is on (ft0 bit 7) unless a test says otherwise.
    std::array<std::uint8_t, 2> ft = {0x80, 0x00};
    std::string call_id = "call-1@example.org";
    // Unset: the size of `call_id`.
    std::optional<std::uint16_t> call_id_len{};
};

struct DataFields {
    HeaderFields header;
    std::uint32_t seq = 1;
    std::uint32_t off = 0;
    std::vector<std::uint16_t> payload = {1, 2, 3, 4};
    // Unset: the number of units in `payload`.
    std::optional<std::uint16_t> num{};
};

struct ControlFields {
    HeaderFields header;
    // Set: the 42-byte form; flag bit 7 is set and the two bytes follow the header. Byte 7 of the
    // flags must be 0 for the packet to be valid.
    std::optional<std::array<std::uint8_t, 2>> ft{};
};

struct TerminateFields {
    HeaderFields header;
};

Datagram encode_start(const StartFields& fields = {});
Datagram encode_data(const DataFields& fields = {});
// The same into `out`, whose bytes it replaces; a reused `out` keeps its capacity, so a sender
// encoding packet after packet allocates nothing once it has grown.
void encode_data(const DataFields& fields, Datagram& out);
Datagram encode_control(const ControlFields& fields = {});
Datagram encode_terminate(const TerminateFields& fields = {});

// What a recording holds for a leg, spelled from the packets' fields as the encoders above spell
// datagrams, independently of the recorder's writer: the 48-byte file header made of the start
// packet's fields, and the frame of one data packet (12 bytes of header, then its payload).
Datagram encode_file_header(const StartFields& start);
Datagram encode_frame(const DataFields& data, std::uint64_t sync_mt);

}  // namespace qm::media
