#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

// What one recorded call leg was, in a few hundred bytes beside its media file ("leg.json"): who
// (uuid, session id, call id, direction), when (start and last accepted packet), how it ended, what
// each side holds and how big the file is, and which recorder took it. It is how a catalogue finds
// a call without reading media files, so its JSON form is a contract: fields are only ever added,
// and `schema` changes when a reader would have to migrate.
//
// The JSON document (one object, keys in this order, two-space indentation, a final newline):
//   {"schema": 1, "uuid": "00112233-...", "session_id": 81985529216486895, "call_id": "...",
//    "leg": "inbound" | "outbound", "flags": 32768,
//    "start_us": 1633954638004211, "start_utc": "2021-10-11T12:17:18.004211Z",
//    "last_packet_us": ..., "last_packet_utc": "...",
//    "closed_by": "terminate" | "timeout" | "stop" | "unknown",
//    "sides": [{"side": 0, "frames": 3, "samples": 480, "first_offset": 0, "last_offset": 320,
//               "lost_packets": 1}, {"side": 1, ...}],
//    "bytes": 1060, "recorder": {"host": "rec-1", "port": 9000},
//    "path": "2021-10-11/12/17/00112233-..."}
// Times are UTC microseconds since the epoch; the "_utc" texts are derived from them and ignored
// when reading. "first_offset" and "last_offset" are null for a side without frames.
//
// A plain value; any thread.

namespace qm::catalog {

using Json = nlohmann::ordered_json;

// The version of the JSON form this code writes and reads.
inline constexpr std::uint64_t LEG_SUMMARY_SCHEMA = 1;

// The side of the call the leg carries, from bit 0 of its start packet's flags.
enum class LegDirection : std::uint8_t { INBOUND, OUTBOUND };

// What ended the leg: its terminate packet, the session time-out, an orderly stop of the recorder
// that handed over the open legs, or nothing known (for summaries rebuilt from a media file).
enum class LegClose : std::uint8_t { TERMINATE, TIMEOUT, STOP, UNKNOWN };

struct SideSummary {
    // Frames in the file and the samples they carry.
    std::uint64_t frames = 0;
    std::uint64_t samples = 0;
    // The `off` of the side's first and last frame; unset without frames.
    std::optional<std::uint32_t> first_offset;
    std::optional<std::uint32_t> last_offset;
    // Packets the sequence numbers skipped.
    std::uint64_t lost_packets = 0;

    bool operator==(const SideSummary&) const = default;
};

struct LegSummary {
    // The uuid's text form, as in the storage path.
    std::string uuid;
    std::uint64_t session_id = 0;
    std::string call_id;
    LegDirection leg = LegDirection::INBOUND;
    // The start packet's 16-bit flags.
    std::uint16_t flags = 0;
    std::uint64_t start_us = 0;
    std::uint64_t last_packet_us = 0;
    LegClose closed_by = LegClose::UNKNOWN;
    std::array<SideSummary, 2> sides{};
    // Size of "media.qm".
    std::uint64_t bytes = 0;
    std::string host;
    std::uint16_t port = 0;
    // The leg's directory relative to the storage root: "<day>/<hour>/<minute>/<uuid>".
    std::string path;

    bool operator==(const LegSummary&) const = default;
};

// "YYYY-MM-DDTHH:MM:SS.uuuuuuZ" for `us` microseconds since the epoch; years before 1970 or after
// 9999 are clamped to the first or last microsecond of that range.
std::string utc_text(std::uint64_t us);

std::string_view direction_name(LegDirection leg);
std::string_view close_name(LegClose closed_by);

// A field of a summary document that is missing or of the wrong type.
class LegSummaryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The nlohmann-json conversions. `from_json` THROWS: LegSummaryError naming the field that is
// missing or of the wrong type.
void to_json(Json& json, const LegSummary& summary);
void from_json(const Json& json, LegSummary& summary);

// The document as written to "leg.json".
std::string render(const LegSummary& summary);

// The summary in `text`; never throws. Unset, with `reason` saying why, when the text is not JSON
// (or is cut short), not an object of the known schema, or a field is missing or of the wrong type.
std::optional<LegSummary> parse(std::string_view text, std::string& reason);

}  // namespace qm::catalog
