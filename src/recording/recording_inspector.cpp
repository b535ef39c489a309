#include "recording/recording_inspector.hpp"

#include <time.h>

#include <cstdio>
#include <ctime>
#include <iomanip>
#include <limits>
#include <sstream>

#include "io/io_media_channel.hpp"
#include "io/io_media_frame.hpp"
#include "recording/recording_file.hpp"
#include "utils/str.hpp"

namespace qm::recording {
namespace {

using nlohmann::json;

// A 32-bit time below the previous one by more than half the counter's range has wrapped rather
// than gone back.
constexpr std::uint32_t TIME_WRAP_DROP = 0x80000000u;

// The width of "sync ts: " and the others, so that the values line up.
constexpr int LABEL_WIDTH = 12;

// Walks one side in file order and adds the bytes of its frames, headers included, to
// `frame_bytes`.
SideReport inspect_side(io::MediaChannel& channel, std::uint64_t& frame_bytes) {
    SideReport side;
    io::MediaFrame frame;
    io::MediaFrame previous;
    while (channel.read(frame) == 1) {
        if (side.frames == 0) {
            side.first_offset = frame.offset;
        } else {
            const std::uint64_t end = std::uint64_t{previous.offset} + previous.num;
            if (frame.offset > end) {
                ++side.gaps;
                side.missing_samples += frame.offset - end;
            } else if (frame.offset < end) {
                ++side.overlaps;
            }
            if (previous.time > frame.time && previous.time - frame.time > TIME_WRAP_DROP) {
                ++side.time_wraps;
            }
        }
        side.last_offset = frame.offset;
        ++side.frames;
        side.samples += frame.num;
        frame_bytes += io::FRAME_HEADER_SIZE + 2u * std::uint64_t{frame.num};
        previous = frame;
    }
    return side;
}

RecordingState state_of_tail(std::uint64_t tail) {
    if (tail == 0) {
        return RecordingState::SOUND;
    }
    return tail < io::FRAME_HEADER_SIZE ? RecordingState::TRUNCATED_FRAME
                                        : RecordingState::INCONSISTENT_FRAME;
}

// "1 frame", "2 frames".
void put_line(std::ostringstream& out, const std::string& label, const std::string& value) {
    out << std::left << std::setw(LABEL_WIDTH) << label + ":" << value << '\n';
}

std::string side_text(const SideReport& side) {
    if (side.frames == 0) {
        return "no frames";
    }
    return counted(side.frames, "frame") + ", " + counted(side.samples, "sample") + ", offsets " +
           std::to_string(side.first_offset) + ".." + std::to_string(side.last_offset) + ", " +
           counted(side.gaps, "gap") + " (" + counted(side.missing_samples, "sample") +
           " missing), " + counted(side.overlaps, "overlap") + ", " +
           counted(side.time_wraps, "time wrap");
}

std::string tail_text(const RecordingReport& report) {
    if (report.tail == 0) {
        return "0 bytes";
    }
    return counted(report.tail, "byte") + " after the last whole frame, from byte " +
           std::to_string(report.frames_end) + " (" + state_name(report.state) + ")";
}

json side_json(const SideReport& side, int number) {
    json out = {{"side", number},
                {"frames", side.frames},
                {"samples", side.samples},
                {"first_offset", nullptr},
                {"last_offset", nullptr},
                {"gaps", side.gaps},
                {"missing_samples", side.missing_samples},
                {"overlaps", side.overlaps},
                {"time_wraps", side.time_wraps}};
    if (side.frames != 0) {
        out["first_offset"] = side.first_offset;
        out["last_offset"] = side.last_offset;
    }
    return out;
}

RecordingReport unreadable(const std::filesystem::path& path, const RecordingError& error) {
    RecordingReport report;
    report.path = path;
    report.state = RecordingState::UNREADABLE;
    report.unreadable_reason = error.what();
    return report;
}

}  // namespace

RecordingReport inspect_recording(const std::filesystem::path& path) {
    std::optional<FileSource> source;
    try {
        source.emplace(path);
    } catch (const RecordingError& error) {
        return unreadable(path, error);
    }
    return inspect_recording(*source);
}

RecordingReport inspect_recording(ByteSource& source) {
    std::optional<RecordingFile> file;
    try {
        file.emplace(source);
    } catch (const RecordingError& error) {
        return unreadable(source.name(), error);
    }
    RecordingReport report;
    report.path = source.name();
    report.size = file->size();
    report.format = file->stream().format();
    report.session = file->session();
    if (!report.session) {
        report.state = RecordingState::TRUNCATED_HEADER;
        return report;
    }
    std::uint64_t frame_bytes = 0;
    const std::vector<io::MediaChannel*> channels = file->stream().streams();
    for (std::size_t side = 0; side < channels.size() && side < report.sides.size(); ++side) {
        report.sides[side] = inspect_side(*channels[side], frame_bytes);
    }
    report.frames_end = io::FILE_HEADER_SIZE + frame_bytes;
    report.tail = file->tail_after(frame_bytes);
    report.state = state_of_tail(report.tail);
    return report;
}

int exit_status(const RecordingReport& report) {
    switch (report.state) {
        case RecordingState::SOUND:
            return 0;
        case RecordingState::TRUNCATED_HEADER:
        case RecordingState::TRUNCATED_FRAME:
        case RecordingState::INCONSISTENT_FRAME:
            return 1;
        case RecordingState::UNREADABLE:
            break;
    }
    return 2;
}

std::string state_name(RecordingState state) {
    switch (state) {
        case RecordingState::SOUND:
            return "sound";
        case RecordingState::TRUNCATED_HEADER:
            return "truncated header";
        case RecordingState::TRUNCATED_FRAME:
            return "truncated frame";
        case RecordingState::INCONSISTENT_FRAME:
            return "inconsistent frame";
        case RecordingState::UNREADABLE:
            break;
    }
    return "unreadable";
}

std::string error_text(const RecordingReport& report) {
    const std::string file = report.path.string();
    switch (report.state) {
        case RecordingState::SOUND:
            return "";
        case RecordingState::TRUNCATED_HEADER:
            return file + ": " + truncated_header(report.size);
        case RecordingState::TRUNCATED_FRAME:
            return file + ": truncated frame: " + counted(report.tail, "byte") +
                   " after the last whole frame, which ends at byte " +
                   std::to_string(report.frames_end);
        case RecordingState::INCONSISTENT_FRAME:
            return file + ": inconsistent frame: the frame at byte " +
                   std::to_string(report.frames_end) + " claims more samples than the " +
                   counted(report.tail - io::FRAME_HEADER_SIZE, "byte") + " after its header hold";
        case RecordingState::UNREADABLE:
            break;
    }
    return report.unreadable_reason;
}

std::string report_text(const RecordingReport& report) {
    std::ostringstream out;
    put_line(out, "file", report.path.string());
    if (report.state != RecordingState::UNREADABLE) {
        put_line(out, "size", counted(report.size, "byte"));
        put_line(out, "format", std::to_string(report.format) + " (media)");
    }
    if (report.session) {
        const io::SessionHeader& session = *report.session;
        put_line(out, "ts", utc_text(session.ts) + " (" + std::to_string(session.ts) + ")");
        put_line(out, "sync ts", std::to_string(session.sync_ts));
        put_line(out, "sync mt", std::to_string(session.sync_mt));
        put_line(out, "uuid", utils::str::print_uuid(session.uuid));
        for (std::size_t side = 0; side < report.sides.size(); ++side) {
            put_line(out, "side " + std::to_string(side), side_text(report.sides[side]));
        }
        put_line(out, "tail", tail_text(report));
    }
    put_line(out, "status", state_name(report.state));
    return out.str();
}

json report_json(const RecordingReport& report) {
    json out = {{"file", report.path.string()},
                {"status", state_name(report.state)},
                {"exit_status", exit_status(report)}};
    if (report.state != RecordingState::UNREADABLE) {
        out["size"] = report.size;
        out["format"] = report.format;
    }
    if (report.session) {
        const io::SessionHeader& session = *report.session;
        out["ts"] = std::uint64_t{session.ts};
        out["ts_utc"] = utc_text(session.ts);
        out["sync_ts"] = std::uint64_t{session.sync_ts};
        out["sync_mt"] = std::uint64_t{session.sync_mt};
        out["uuid"] = utils::str::print_uuid(session.uuid);
        out["sides"] = json::array({side_json(report.sides[0], 0), side_json(report.sides[1], 1)});
        out["frames_end"] = report.frames_end;
        out["tail"] = report.tail;
    }
    if (report.state != RecordingState::SOUND) {
        out["error"] = error_text(report);
    }
    return out;
}

std::string utc_text(std::uint64_t microseconds) {
    const std::uint64_t seconds = microseconds / 1000000u;
    if (seconds > static_cast<std::uint64_t>(std::numeric_limits<std::time_t>::max())) {
        return "not a date";
    }
    const auto when = static_cast<std::time_t>(seconds);
    std::tm utc{};
    char date[64];
    if (::gmtime_r(&when, &utc) == nullptr ||
        std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &utc) == 0) {
        return "not a date";
    }
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%06u UTC",
                  static_cast<unsigned>(microseconds % 1000000u));
    return std::string(date) + fraction;
}

}  // namespace qm::recording
