#include "catalog/leg_summary.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string>
#include <utility>

namespace qm::catalog {
namespace {

constexpr std::array<std::string_view, 2> DIRECTION_NAMES = {"inbound", "outbound"};
constexpr std::array<std::string_view, 4> CLOSE_NAMES = {"terminate", "timeout", "stop", "unknown"};

// 9999-12-31T23:59:59.999999Z, the last microsecond with a four-digit year.
constexpr std::uint64_t LAST_US = 253'402'300'799'999'999;

const Json& field(const Json& json, const char* name) {
    const auto found = json.find(name);
    if (found == json.end()) {
        throw LegSummaryError(std::string("missing field \"") + name + "\"");
    }
    return *found;
}

[[noreturn]] void wrong_type(const char* name, const char* expected) {
    throw LegSummaryError(std::string("field \"") + name + "\" is not " + expected);
}

// An unsigned whole number of at most `max`.
std::uint64_t number(const Json& json, const char* name,
                     std::uint64_t max = std::numeric_limits<std::uint64_t>::max()) {
    const Json& value = field(json, name);
    if (!value.is_number_unsigned() || value.get<std::uint64_t>() > max) {
        wrong_type(name, max == std::numeric_limits<std::uint64_t>::max()
                             ? "an unsigned 64-bit number"
                             : "an unsigned number in range");
    }
    return value.get<std::uint64_t>();
}

std::string text(const Json& json, const char* name) {
    const Json& value = field(json, name);
    if (!value.is_string()) {
        wrong_type(name, "a string");
    }
    return value.get<std::string>();
}

const Json& object(const Json& json, const char* name) {
    const Json& value = field(json, name);
    if (!value.is_object()) {
        wrong_type(name, "an object");
    }
    return value;
}

std::optional<std::uint32_t> offset(const Json& json, const char* name) {
    if (field(json, name).is_null()) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(
        number(json, name, std::numeric_limits<std::uint32_t>::max()));
}

// The index of the name `value` of field `name` in `names`.
template <std::size_t N>
std::size_t one_of(const Json& json, const char* name,
                   const std::array<std::string_view, N>& names) {
    const std::string value = text(json, name);
    const auto found = std::find(names.begin(), names.end(), value);
    if (found == names.end()) {
        throw LegSummaryError(std::string("field \"") + name + "\" has the unknown value \"" +
                              value + "\"");
    }
    return static_cast<std::size_t>(found - names.begin());
}

Json side_json(const SideSummary& side, int number) {
    Json out = {{"side", number},          {"frames", side.frames},
                {"samples", side.samples}, {"first_offset", nullptr},
                {"last_offset", nullptr},  {"lost_packets", side.lost_packets}};
    if (side.first_offset) {
        out["first_offset"] = *side.first_offset;
    }
    if (side.last_offset) {
        out["last_offset"] = *side.last_offset;
    }
    return out;
}

SideSummary side_of(const Json& json) {
    SideSummary side;
    side.frames = number(json, "frames");
    side.samples = number(json, "samples");
    side.first_offset = offset(json, "first_offset");
    side.last_offset = offset(json, "last_offset");
    side.lost_packets = number(json, "lost_packets");
    return side;
}

void read_sides(const Json& json, std::array<SideSummary, 2>& sides) {
    const Json& list = field(json, "sides");
    if (!list.is_array() || list.size() != sides.size()) {
        wrong_type("sides", "an array of two sides");
    }
    for (std::size_t i = 0; i < sides.size(); ++i) {
        if (!list[i].is_object()) {
            wrong_type("sides", "an array of two sides");
        }
        if (number(list[i], "side") != i) {
            throw LegSummaryError("side " + std::to_string(i) + " is out of order");
        }
        sides[i] = side_of(list[i]);
    }
}

}  // namespace

std::string utc_text(std::uint64_t us) {
    const std::uint64_t clamped = std::min(us, LAST_US);
    const auto seconds = static_cast<std::time_t>(clamped / 1'000'000);
    std::tm utc{};
    char date[24] = {};
    if (::gmtime_r(&seconds, &utc) == nullptr ||
        std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc) == 0) {
        return "0000-00-00T00:00:00.000000Z";
    }
    char text[40] = {};
    std::snprintf(text, sizeof text, "%s.%06uZ", date, static_cast<unsigned>(clamped % 1'000'000));
    return text;
}

std::string_view direction_name(LegDirection leg) {
    return DIRECTION_NAMES.at(static_cast<std::size_t>(leg));
}

std::string_view close_name(LegClose closed_by) {
    return CLOSE_NAMES.at(static_cast<std::size_t>(closed_by));
}

void to_json(Json& json, const LegSummary& summary) {
    json = {
        {"schema", LEG_SUMMARY_SCHEMA},
        {"uuid", summary.uuid},
        {"session_id", summary.session_id},
        {"call_id", summary.call_id},
        {"leg", direction_name(summary.leg)},
        {"flags", summary.flags},
        {"start_us", summary.start_us},
        {"start_utc", utc_text(summary.start_us)},
        {"last_packet_us", summary.last_packet_us},
        {"last_packet_utc", utc_text(summary.last_packet_us)},
        {"closed_by", close_name(summary.closed_by)},
        {"sides", Json::array({side_json(summary.sides[0], 0), side_json(summary.sides[1], 1)})},
        {"bytes", summary.bytes},
        {"recorder", {{"host", summary.host}, {"port", summary.port}}},
        {"path", summary.path}};
}

void from_json(const Json& json, LegSummary& summary) {
    if (!json.is_object()) {
        throw LegSummaryError("not a JSON object");
    }
    const std::uint64_t schema = number(json, "schema");
    if (schema != LEG_SUMMARY_SCHEMA) {
        throw LegSummaryError("schema " + std::to_string(schema) + " is not known");
    }
    LegSummary out;
    out.uuid = text(json, "uuid");
    out.session_id = number(json, "session_id");
    out.call_id = text(json, "call_id");
    out.leg = static_cast<LegDirection>(one_of(json, "leg", DIRECTION_NAMES));
    out.flags = static_cast<std::uint16_t>(number(json, "flags", 0xFFFF));
    out.start_us = number(json, "start_us");
    out.last_packet_us = number(json, "last_packet_us");
    out.closed_by = static_cast<LegClose>(one_of(json, "closed_by", CLOSE_NAMES));
    read_sides(json, out.sides);
    out.bytes = number(json, "bytes");
    const Json& recorder = object(json, "recorder");
    out.host = text(recorder, "host");
    out.port = static_cast<std::uint16_t>(number(recorder, "port", 0xFFFF));
    out.path = text(json, "path");
    summary = std::move(out);
}

std::string render(const LegSummary& summary) {
    return Json(summary).dump(2) + "\n";
}

std::optional<LegSummary> parse(std::string_view text, std::string& reason) {
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        reason = "not JSON (or cut short)";
        return std::nullopt;
    }
    try {
        return json.get<LegSummary>();
    } catch (const LegSummaryError& error) {
        reason = error.what();
    } catch (const Json::exception& error) {
        // Not expected: every field is checked before it is read.
        reason = error.what();
    }
    return std::nullopt;
}

}  // namespace qm::catalog
