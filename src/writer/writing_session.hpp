#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "media/session.hpp"
#include "media/start_packet.hpp"

// One recorded call leg: the session of the session table plus what its media file needs. The
// writing manager creates it for a start packet whose leg is recorded.
//
// Threads: the session thread (the packet reader's, which runs the writing manager) writes
// `sync_mt` and `buffer`; `file_path` is set at creation and never changes; `directory_ready`
// and `reported_errors` belong to the media writer thread alone. Buffers pushed to the media
// writer hold a counted reference, so a session outlives the table while its bytes are on the way
// to disk; the push orders the writer's reads after the session thread's writes.

namespace qm::writer {

struct MediaBuffer;

class WritingSession : public media::Session {
public:
    // The bits of `reported_errors`: one kind of error already logged for this session.
    static constexpr std::uint32_t REPORTED_DIRECTORY = 1;
    static constexpr std::uint32_t REPORTED_OPEN = 2;
    static constexpr std::uint32_t REPORTED_WRITE = 4;
    static constexpr std::uint32_t REPORTED_WRITE_UNKNOWN = 8;

    WritingSession(const media::StartPacket& packet, std::uint64_t created_us,
                   std::string media_file_path)
        : Session(packet, created_us),
          sync_mt(packet.sync_mt),
          file_path(std::move(media_file_path)) {}

    // Frame times in the file are media times relative to this.
    std::uint64_t sync_mt = 0;
    // The buffer being filled; null after completion or after a failed acquire. A session never
    // frees it: it goes to the media writer, which gives it back to the pool, or, when it cannot
    // go there, the writing manager gives it back.
    MediaBuffer* buffer = nullptr;
    // Storage root, "/" and the session's relative path.
    const std::string file_path;
    // Set once the directory that holds the file exists.
    bool directory_ready = false;
    // REPORTED_* bits of the errors logged so far; a success clears its bit again.
    std::uint32_t reported_errors = 0;
};

}  // namespace qm::writer
