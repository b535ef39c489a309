#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "media/packet_encoder.hpp"

// A recording's bytes as the recorder lays them out, spelled by the packet encoder from the
// packets' fields, independently of the writer: the file header of a start packet, then one frame
// per data packet. For tests that need a recording without running the recorder.

namespace qm::test {

inline media::Datagram recording_bytes(const media::StartFields& start,
                                       const std::vector<media::DataFields>& frames) {
    media::Datagram bytes = media::encode_file_header(start);
    for (const media::DataFields& data : frames) {
        const media::Datagram frame = media::encode_frame(data, start.sync_mt);
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    return bytes;
}

// The default start packet's leg with the frames' times counted from `sync_mt`.
inline media::Datagram recording_bytes(std::uint64_t sync_mt,
                                       const std::vector<media::DataFields>& frames) {
    media::StartFields start;
    start.sync_mt = sync_mt;
    return recording_bytes(start, frames);
}

// The first `size` bytes as text, for writing a (possibly cut) recording to a file.
inline std::string text_of(const media::Datagram& bytes, std::size_t size) {
    return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)};
}

inline std::string text_of(const media::Datagram& bytes) {
    return text_of(bytes, bytes.size());
}

}  // namespace qm::test
