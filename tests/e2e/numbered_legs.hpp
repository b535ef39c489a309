#pragma once

// Legs numbered 0, 1, 2, ... for tests that send many calls by hand: leg N has the session id
// 1000 + N and N in the last two bytes of its uuid, and its frame `seq` (from 1) is 160 samples
// worth N * 100 + seq, 20 ms after the one before. Each leg's file is then known byte for byte.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "io/io_session_path.hpp"
#include "media/packet_encoder.hpp"
#include "recording_bytes.hpp"

namespace qm::test {

inline media::StartFields numbered_start(std::uint32_t leg) {
    media::StartFields start;
    start.header.id = 1000 + leg;
    start.header.uuid[14] = static_cast<std::uint8_t>(leg >> 8);
    start.header.uuid[15] = static_cast<std::uint8_t>(leg);
    return start;
}

inline media::DataFields numbered_frame(std::uint32_t leg, std::uint32_t seq) {
    media::DataFields data;
    data.header = numbered_start(leg).header;
    data.header.mt += seq * 20000;
    data.seq = seq;
    data.off = (seq - 1) * 160;
    data.payload.assign(160, static_cast<std::uint16_t>(leg * 100 + seq));
    return data;
}

// What the leg's file holds with its first `frames` frames.
inline std::string numbered_file(std::uint32_t leg, std::uint32_t frames) {
    std::vector<media::DataFields> data;
    for (std::uint32_t seq = 1; seq <= frames; ++seq) {
        data.push_back(numbered_frame(leg, seq));
    }
    return text_of(recording_bytes(numbered_start(leg), data));
}

// Where the recorder writes the leg's file under `storage`.
inline std::filesystem::path numbered_file_path(const std::filesystem::path& storage,
                                                std::uint32_t leg) {
    const media::StartFields start = numbered_start(leg);
    return storage / io::session_path(start.ts, start.header.uuid);
}

}  // namespace qm::test
