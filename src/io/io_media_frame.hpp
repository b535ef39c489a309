#pragma once

#include <cstdint>

// One frame as a media channel delivers it: a view of the frame's samples and the values of its
// header, the offset already moved by the channel's offset base. A plain value filled by
// `MediaChannel::read`; it owns nothing: `payload` points into the bytes of the stream that
// filled it and is valid only while that stream lives. Used by the thread that reads the stream.

namespace qm::io {

struct MediaFrame {
    // The first of `num` little-endian 16-bit samples, as they were written; not aligned.
    const std::uint8_t* payload = nullptr;
    std::uint16_t num = 0;
    // The frame's `off` plus the channel's offset base, wrapping at 32 bits.
    std::uint32_t offset = 0;
    // The packet's `mt` minus the session's `sync_mt`, as stored (cut to 32 bits).
    std::uint32_t time = 0;
};

}  // namespace qm::io
