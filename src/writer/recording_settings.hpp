#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
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
    // Each closed leg gets "leg.json" beside its "media.qm": the catalogue's summary of it.
    bool write_leg_summary = false;
    // Set: the permission bits no directory or file of the storage gets. The service makes it the
    // process's umask before it creates anything, so directories come out 0777 and files 0666 less
    // these bits, whatever umask the process was started with. Unset: the process's umask stays
    // and directories are created 0755, files 0666, under it.
    std::optional<mode_t> storage_mode_mask;

    // The mode the storage's directories are created with, before the umask takes its bits off.
    [[nodiscard]] mode_t directory_mode() const { return storage_mode_mask ? 0777 : 0755; }
};

}  // namespace qm::writer
