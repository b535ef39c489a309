#pragma once

#include <cstdint>
#include <string>

// What the recording pipeline (writing manager, media buffer pool, media writer) is told by the
// recorder's configuration. The pipeline keeps its own copy, taken when it is built, so it never
// reads the configuration again.
namespace qm::writer {

struct RecordingSettings {
    // Root directory of the recordings; checked (and created) by the service at start.
    std::string storage;
    // 0 leaves the choice to the media buffer pool.
    std::uint64_t media_buffer_size = 0;
    // 0 leaves the choice to the media buffer pool.
    std::uint64_t media_buffers_count = 0;
    bool write_media = true;
    // A failed write is cut back to the last whole frame, and a file whose header never reached
    // the disk gets it before its next frames; false leaves a failed write's remains in place.
    bool media_write_repair = false;
};

}  // namespace qm::writer
