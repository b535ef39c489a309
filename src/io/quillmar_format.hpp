#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The byte format of a recording, "media.qm": a 48-byte file header (the 8-byte stream header,
// then the session header) followed by frames back to back to the end of the file, one per
// accepted data packet, both sides interleaved. Every number is little-endian; the records are
// packed and are copied to and from the bytes, never read in place at an unaligned address.
// There is no frame count and no end marker: buffers are written whole, and they end at frame
// boundaries. Plain records without owned resources; any thread.

namespace qm::io {

using Uuid = std::array<std::uint8_t, 16>;

// "QM", a zero byte, "F" as a little-endian 32-bit value.
inline constexpr std::uint32_t QUILLMAR_MAGIC = 0x46004D51;
// The only format written: media frames.
inline constexpr std::uint32_t MEDIA_FORMAT = 0;

struct __attribute__((packed)) QuillmarStreamHeader {
    std::uint32_t magic;
    std::uint32_t format;
};

// The start packet's times and the leg's uuid.
struct __attribute__((packed)) SessionHeader {
    std::uint64_t ts;
    std::uint64_t sync_ts;
    // The origin of the frames' times.
    std::uint64_t sync_mt;
    std::uint8_t uuid[16];
};

// One data packet's frame header; `num` 16-bit samples follow it.
struct __attribute__((packed)) SessionStreamFrame {
    // Bit 0: the packet's side; the other bits 0.
    std::uint8_t side;
    std::uint8_t reserved;
    std::uint16_t num;
    std::uint32_t off;
    // The packet's `mt` minus `sync_mt`, cut to 32 bits.
    std::uint32_t time;
};

// The whole file header, as the writer puts it in front of the frames.
struct __attribute__((packed)) FileHeader {
    QuillmarStreamHeader stream;
    SessionHeader session;
};

inline constexpr std::size_t FILE_HEADER_SIZE =
    sizeof(QuillmarStreamHeader) + sizeof(SessionHeader);
inline constexpr std::size_t FRAME_HEADER_SIZE = sizeof(SessionStreamFrame);

static_assert(sizeof(QuillmarStreamHeader) == 8);
static_assert(offsetof(QuillmarStreamHeader, magic) == 0);
static_assert(offsetof(QuillmarStreamHeader, format) == 4);
static_assert(sizeof(SessionHeader) == 40);
static_assert(offsetof(SessionHeader, ts) == 0);
static_assert(offsetof(SessionHeader, sync_ts) == 8);
static_assert(offsetof(SessionHeader, sync_mt) == 16);
static_assert(offsetof(SessionHeader, uuid) == 24);
static_assert(FILE_HEADER_SIZE == 48);
static_assert(sizeof(FileHeader) == FILE_HEADER_SIZE);
static_assert(offsetof(FileHeader, session) == 8);
static_assert(sizeof(SessionStreamFrame) == 12);
static_assert(FRAME_HEADER_SIZE == 12);
static_assert(offsetof(SessionStreamFrame, side) == 0);
static_assert(offsetof(SessionStreamFrame, reserved) == 1);
static_assert(offsetof(SessionStreamFrame, num) == 2);
static_assert(offsetof(SessionStreamFrame, off) == 4);
static_assert(offsetof(SessionStreamFrame, time) == 8);

}  // namespace qm::io
