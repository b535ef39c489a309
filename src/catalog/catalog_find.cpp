#include "catalog/catalog_find.hpp"

#include <time.h>

#include <cstdio>
#include <regex>

namespace qm::catalog {
namespace {

int number(const std::ssub_match& match) {
    return match.matched ? std::stoi(match.str()) : 0;
}

std::string side_text(const SideSummary& side) {
    return std::to_string(side.frames) + "/" + std::to_string(side.lost_packets);
}

// Where the leg is to be found: its directory, its archive's URL, or "removed".
std::string where_text(const CatalogRow& row) {
    switch (row.state) {
        case RowState::REMOVED:
            return "removed";
        case RowState::ARCHIVED:
            return row.archive_url.value_or("archived");
        case RowState::RECORDED:
            break;
    }
    return row.summary.path;
}

// Sets `NAME_us` and `NAME_utc` to the time, or both to null.
void put_time(Json& json, const std::string& name, const std::optional<std::uint64_t>& us) {
    json[name + "_us"] = us ? Json(*us) : Json(nullptr);
    json[name + "_utc"] = us ? Json(utc_text(*us)) : Json(nullptr);
}

}  // namespace

std::optional<std::uint64_t> parse_utc_time(const std::string& text) {
    static const std::regex FORM(R"((\d{4})-(\d{2})-(\d{2})[T ](\d{2}):(\d{2})(?::(\d{2}))?Z?)");
    std::smatch match;
    if (!std::regex_match(text, match, FORM)) {
        return std::nullopt;
    }
    std::tm fields{};
    fields.tm_year = number(match[1]) - 1900;
    fields.tm_mon = number(match[2]) - 1;
    fields.tm_mday = number(match[3]);
    fields.tm_hour = number(match[4]);
    fields.tm_min = number(match[5]);
    fields.tm_sec = number(match[6]);
    std::tm normalised = fields;
    const time_t seconds = ::timegm(&normalised);
    // timegm() moves 2026-02-30 to March: a date that does not exist comes back changed.
    if (seconds < 0 || normalised.tm_mday != fields.tm_mday || normalised.tm_mon != fields.tm_mon ||
        normalised.tm_hour != fields.tm_hour || normalised.tm_min != fields.tm_min ||
        normalised.tm_sec != fields.tm_sec) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(seconds) * 1'000'000;
}

std::string find_line(const CatalogRow& row) {
    const LegSummary& leg = row.summary;
    const std::uint64_t duration_ms =
        leg.last_packet_us > leg.start_us ? (leg.last_packet_us - leg.start_us) / 1000 : 0;
    char duration[32] = {};
    std::snprintf(duration, sizeof duration, "%llu.%03llus",
                  static_cast<unsigned long long>(duration_ms / 1000),
                  static_cast<unsigned long long>(duration_ms % 1000));
    return utc_text(leg.start_us) + " " + duration + " " +
           (leg.call_id.empty() ? "-" : leg.call_id) + " " + leg.uuid + " " +
           std::string(direction_name(leg.leg)) + " side0=" + side_text(leg.sides[0]) +
           " side1=" + side_text(leg.sides[1]) + " " + where_text(row);
}

Json row_json(const CatalogRow& row) {
    Json json = row.summary;
    json["state"] = state_name(row.state);
    put_time(json, "removed_at", row.removed_at_us);
    json["archive_url"] = row.archive_url ? Json(*row.archive_url) : Json(nullptr);
    put_time(json, "archived_at", row.archived_at_us);
    return json;
}

std::string find_json(const CatalogRow& row) {
    return row_json(row).dump();
}

}  // namespace qm::catalog
