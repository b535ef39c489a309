#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "catalog/leg_summary.hpp"
#include "io/quillmar_format.hpp"
#include "media/session.hpp"
#include "media/start_packet.hpp"
#include "utils/str.hpp"
#include "writer/open_legs.hpp"

// One recorded call leg: the session of the session table plus what its media file needs. The
// writing manager creates it for a start packet whose leg is recorded.
//
// Threads: the session thread (the packet reader's, which runs the writing manager) writes
// `sync_mt` and `buffer`; `file_path` and `file_header` are set at creation and never change;
// `directory_ready`, `reported_errors`, `reported_write_error` and `header` belong to the media
// writer thread alone. `summary` and `last_mt` are the session thread's until it marks the
// session's last buffer in `final_buffer` and pushes it; the writer reads them only when it holds
// that buffer. Buffers pushed to the media writer hold a counted reference, so a session
// outlives the table while its bytes are on the way to disk; the push orders the writer's reads
// after the session thread's writes.

namespace qm::writer {

struct MediaBuffer;

class WritingSession : public media::Session {
public:
    // The bits of `reported_errors`: one kind of error already logged for this session.
    static constexpr std::uint32_t REPORTED_DIRECTORY = 1;
    static constexpr std::uint32_t REPORTED_OPEN = 2;

    // Where the file header is, as far as the media writer knows.
    enum class HeaderState : std::uint8_t {
        // The writing manager put it at the start of the session's first buffer, which the writer
        // has not handled yet.
        IN_FIRST_BUFFER,
        // Every byte of it reached the file.
        ON_DISK,
        // The buffer that carried it was lost or cut away: the file has no header.
        LOST,
    };

    WritingSession(const media::StartPacket& packet, std::uint64_t created_us,
                   std::string media_file_path)
        : Session(packet, created_us),
          sync_mt(packet.sync_mt),
          file_path(std::move(media_file_path)),
          file_header(header_of(packet)),
          last_mt(packet.header.mt) {
        summary.uuid = utils::str::print_uuid(packet.header.uuid);
        summary.session_id = packet.header.id;
        summary.call_id = call_id;
        summary.leg = packet.header.is_outbound() ? catalog::LegDirection::OUTBOUND
                                                  : catalog::LegDirection::INBOUND;
        summary.flags = packet.header.flags;
        summary.start_us = packet.ts;
    }

    // Counts one frame the session appended for `side`.
    void count_frame(std::uint8_t side, std::uint32_t off, std::uint16_t samples,
                     std::uint64_t mt) {
        catalog::SideSummary& tally = summary.sides[side];
        ++tally.frames;
        tally.samples += samples;
        if (!tally.first_offset) {
            tally.first_offset = off;
        }
        tally.last_offset = off;
        last_mt = mt;
    }

    // Completes the summary for a leg that ends now, `closed_by`.
    void close_summary(catalog::LegClose closed_by) {
        summary.closed_by = closed_by;
        summary.last_packet_us = file_header.session.sync_ts + (last_mt - sync_mt);
        summary.sides[0].lost_packets = lost_packets[0];
        summary.sides[1].lost_packets = lost_packets[1];
    }

    // The 48 bytes in front of the leg's frames.
    static io::FileHeader header_of(const media::StartPacket& packet) {
        io::FileHeader header{{io::QUILLMAR_MAGIC, io::MEDIA_FORMAT},
                              {packet.ts, packet.sync_ts, packet.sync_mt, {}}};
        std::memcpy(header.session.uuid, packet.header.uuid, sizeof header.session.uuid);
        return header;
    }

    // Frame times in the file are media times relative to this.
    std::uint64_t sync_mt = 0;
    // The buffer being filled; null after completion or after a failed acquire. A session never
    // frees it: it goes to the media writer, which gives it back to the pool, or, when it cannot
    // go there, the writing manager gives it back.
    MediaBuffer* buffer = nullptr;
    // Storage root, "/" and the session's relative path.
    const std::string file_path;
    // What the writing manager puts at the start of the first buffer, and what the media writer
    // writes again when that buffer never reached the disk.
    const io::FileHeader file_header;
    // Set once the directory that holds the file exists.
    bool directory_ready = false;
    // REPORTED_* bits of the errors logged so far; a success clears its bit again.
    std::uint32_t reported_errors = 0;
    // The leg's minute among the open legs, while the storage cleanup is to spare it; the session
    // thread sets it at creation and resets it at completion.
    OpenLegs::Registration open_leg;
    // The errno of the failed write or close logged last; 0 once a buffer was written whole.
    int reported_write_error = 0;
    HeaderState header = HeaderState::IN_FIRST_BUFFER;
    // What "leg.json" says; the session thread fills all but `bytes`, `host` and `port`, which the
    // writer adds.
    catalog::LegSummary summary;
    // The `mt` of the last accepted packet: the start packet's until a frame is appended. The time
    // it stands for is `sync_ts` plus its distance from `sync_mt`.
    std::uint64_t last_mt = 0;
    // The session's last buffer, set by the session thread just before it pushes it. The writer
    // compares it with the buffer it holds: relaxed is enough, as the push of that buffer orders
    // the store (and the summary's writes) before the writer's load for it, and for an earlier
    // buffer the writer sees null or another buffer (the last one cannot be the one the writer
    // still holds, as the session thread can only have it once the writer released it).
    std::atomic<const MediaBuffer*> final_buffer{nullptr};
};

}  // namespace qm::writer
