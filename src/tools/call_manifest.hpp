#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "io/quillmar_format.hpp"

// What `quillmar send` sent, written as JSON with `--manifest` and read back by `quillmar
// verify`: per leg its uuid, session id and start `ts`, and per side every data packet in
// sequence order with its offset, sample count and payload hash, and whether the recorder is
// expected not to keep it. A plain value; any thread.
//
// The JSON document:
//   {"version": 1, "legs": [{"uuid": "...", "id": 81985529216486895, "ts": 1633954638004211,
//     "sides": [{"side": 0, "frames": [[seq, off, num, "hash"], ...],
//                "lost": [seq, ...], "reordered": [seq, ...]}, {"side": 1, ...}]}, ...]}
// "hash" is `payload_hash` as 16 lower-case hexadecimal digits; "lost" holds the packets withheld
// by `--loss`, "reordered" those sent after a later packet of their side.

namespace qm::tools {

struct SentFrame {
    std::uint32_t seq = 0;
    std::uint32_t off = 0;
    std::uint16_t num = 0;
    std::uint64_t hash = 0;
};

enum class Expectation { RECORDED, LOST, REORDERED };

struct SentSide {
    // In sequence order, every packet made for the side, whether sent or not.
    std::vector<SentFrame> frames;
    // Parallel to `frames`.
    std::vector<Expectation> expectations;
};

struct SentLeg {
    io::Uuid uuid{};
    std::uint64_t id = 0;
    std::uint64_t ts = 0;
    std::array<SentSide, 2> sides;
};

struct CallManifest {
    std::vector<SentLeg> legs;
};

// FNV-1a, 64 bits, over the payload's bytes as they travel (little-endian samples).
std::uint64_t payload_hash(const std::uint8_t* bytes, std::size_t size);

// THROWS: std::runtime_error naming the file when it cannot be written.
void write_manifest(const CallManifest& manifest, const std::filesystem::path& path);
// THROWS: std::runtime_error naming the file when it cannot be read or is not a manifest.
CallManifest read_manifest(const std::filesystem::path& path);

}  // namespace qm::tools
