#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "media/packet_header.hpp"

// The start packet (type 0x81), which opens the session of one call leg: 82 fixed bytes followed
// by `call_id_len` bytes of call id. A view read in place from a packet buffer; see
// "media/packet_header.hpp" for the rules every record follows.

namespace qm::media {

struct __attribute__((packed)) StartPacket {
    PacketHeader header;
    std::uint64_t ts;
    std::uint64_t sync_ts;
    std::uint64_t sync_mt;
    // Meaningful only when `has_rule()`.
    std::uint64_t rule;
    std::uint8_t unread[6];
    std::uint8_t ft[2];
    std::uint16_t call_id_len;

    bool has_rule() const { return (header.flags & FLAG_START_RULE) != 0; }
    bool has_n_flag() const { return (header.flags & FLAG_START_N) != 0; }

    // The length a datagram with this header must have.
    // REQUIRES: the record lies in a buffer of at least sizeof(StartPacket) bytes.
    std::uint64_t required_length() const { return sizeof(StartPacket) + call_id_len; }

    // The call id text: up to its first zero byte, never beyond `call_id_len`.
    // REQUIRES: the datagram's length equals `required_length()`.
    std::string_view call_id() const {
        const char* text = reinterpret_cast<const char*>(this) + sizeof(StartPacket);
        return {text, ::strnlen(text, call_id_len)};
    }
};

static_assert(sizeof(StartPacket) == 82);
static_assert(offsetof(StartPacket, header) == 0);
static_assert(offsetof(StartPacket, ts) == 40);
static_assert(offsetof(StartPacket, sync_ts) == 48);
static_assert(offsetof(StartPacket, sync_mt) == 56);
static_assert(offsetof(StartPacket, rule) == 64);
static_assert(offsetof(StartPacket, unread) == 72);
static_assert(offsetof(StartPacket, ft) == 78);
static_assert(offsetof(StartPacket, call_id_len) == 80);

}  // namespace qm::media
