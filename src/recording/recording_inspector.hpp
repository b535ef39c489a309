#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "io/quillmar_format.hpp"
#include "recording/byte_source.hpp"

// What `quillmar inspect` finds in one "media.qm": its header, per side what the reader delivers
// (frames, samples, offsets, and where the offsets or times do not follow on), and whether the
// file ends on a whole frame. The facts are gathered once into a plain report, which is then
// printed as aligned "key: value" lines or as one JSON document. Reads the file only; any thread,
// one report per call.
//
// Per side, in file order, with `end` = the previous frame's offset + its sample count (64-bit,
// offsets are not unwrapped): a frame at an offset past `end` leaves a gap of the samples between;
// a frame at an offset before `end` overlaps or repeats samples; a frame whose `time` is below the
// previous frame's by more than 2^31 marks a wrap of the 32-bit time counter.
//
// The tail is what follows the last whole frame the reader delivered: none for a sound file,
// fewer than 12 bytes for a frame header cut short, 12 or more for a frame header claiming more
// samples than the file still holds.

namespace qm::recording {

struct SideReport {
    std::uint64_t frames = 0;
    std::uint64_t samples = 0;
    // MediaFrame::offset of the side's first and last frame, in file order; meaningless without
    // frames.
    std::uint32_t first_offset = 0;
    std::uint32_t last_offset = 0;
    std::uint64_t gaps = 0;
    std::uint64_t missing_samples = 0;
    std::uint64_t overlaps = 0;
    std::uint64_t time_wraps = 0;
};

enum class RecordingState {
    SOUND,
    // The file has the magic but ends inside the 48-byte file header.
    TRUNCATED_HEADER,
    // The file ends inside a frame header.
    TRUNCATED_FRAME,
    // The last frame header claims more samples than the file holds.
    INCONSISTENT_FRAME,
    // Missing, unreadable, without the magic or of an unknown format: not looked into.
    UNREADABLE,
};

struct RecordingReport {
    std::filesystem::path path;
    RecordingState state = RecordingState::SOUND;
    // For UNREADABLE, why: one line naming the file.
    std::string unreadable_reason;
    std::uint64_t size = 0;
    std::uint32_t format = io::MEDIA_FORMAT;
    // None when the file ends inside the header.
    std::optional<io::SessionHeader> session;
    std::array<SideReport, 2> sides;
    // The byte at which the last whole frame ends (48 without frames), and the bytes after it.
    std::uint64_t frames_end = io::FILE_HEADER_SIZE;
    std::uint64_t tail = 0;
};

// Never throws for what the file holds or whether it can be read: that is the report's state.
RecordingReport inspect_recording(const std::filesystem::path& path);
// The same of any source, named in the report by its name(). Bytes that are not a media file are
// the report's state, but what the source itself throws when it cannot be read (the store's
// error) goes to the caller: there is no report of a recording that could not be fetched.
RecordingReport inspect_recording(ByteSource& source);

// 0 sound, 1 truncated header or frame, 2 unreadable.
int exit_status(const RecordingReport& report);

// "sound", "truncated header", "truncated frame", "inconsistent frame" or "unreadable".
std::string state_name(RecordingState state);

// The problem in one line starting with the file's path ("media.qm: truncated frame: ..."); empty
// for a sound file. The command prefixes it with its own name.
std::string error_text(const RecordingReport& report);

// The report as "key:" lines padded to one column, each ending in a newline:
//   file:       media.qm
//   size:       1388 bytes
//   format:     0 (media)
//   ts:         2021-10-11 12:17:18.004211 UTC (1633954638004211)
//   sync ts:    1633954638000000
//   sync mt:    500
//   uuid:       00112233-4455-6677-8899-aabbccddeeff
//   side 0:     2 frames, 320 samples, offsets 0..160, 0 gaps (0 samples missing), ...
//   side 1:     no frames
//   tail:       0 bytes
//   status:     sound
// Lines for what the file does not hold are left out (an unreadable file has only "file" and
// "status"; a truncated header no header fields, sides or tail).
std::string report_text(const RecordingReport& report);

// The same facts as one JSON object: "file", "status", "exit_status", and as far as the file
// holds them "size", "format", "ts", "ts_utc", "sync_ts", "sync_mt", "uuid", "sides" (objects with
// "side", "frames", "samples", "first_offset" and "last_offset" (null without frames), "gaps",
// "missing_samples", "overlaps", "time_wraps"), "frames_end", "tail"; "error" (error_text) when
// the file is not sound.
nlohmann::json report_json(const RecordingReport& report);

// A time in microseconds since the epoch as "2021-10-11 12:17:18.004211 UTC"; "not a date" when
// the calendar cannot hold it.
std::string utc_text(std::uint64_t microseconds);

}  // namespace qm::recording
