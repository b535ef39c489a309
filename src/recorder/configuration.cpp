#include "recorder/configuration.hpp"

#include <strings.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "catalog/open_catalog.hpp"
#include "utils/str.hpp"
#include "utils/time.hpp"

namespace qm::recorder {

namespace {

template <typename Enum, std::size_t N>
bool try_parse_name(const std::array<std::pair<std::string_view, Enum>, N>& names,
                    const std::string& text, Enum& out) {
    for (const auto& [name, value] : names) {
        if (text == name) {
            out = value;
            return true;
        }
    }
    return false;
}

constexpr std::array<std::pair<std::string_view, cleanup_algo>, 2> CLEANUP_ALGO_NAMES = {{
    {"df", cleanup_algo::DF},
    {"du", cleanup_algo::DU},
}};

constexpr std::array<std::pair<std::string_view, cleanup_policy>, 4> CLEANUP_POLICY_NAMES = {{
    {"disabled", cleanup_policy::DISABLED},
    {"minute", cleanup_policy::MINUTE},
    {"hour", cleanup_policy::HOUR},
    {"day", cleanup_policy::DAY},
}};

// A digit then one of the timer's units "s", "m", "h" or "d" at the end; "ms" and "ns" are not
// among them.
bool has_max_age_unit(const std::string& text) {
    static constexpr std::string_view UNITS = "smhd";
    const std::size_t size = text.size();
    return size >= 2 && UNITS.find(text[size - 1]) != std::string_view::npos &&
           text[size - 2] >= '0' && text[size - 2] <= '9';
}

constexpr std::string_view PERCENT_SUFFIX = "%";

struct SizeSuffix {
    const char* text;
    long double multiplier;
};

constexpr std::array<SizeSuffix, 8> SIZE_SUFFIXES = {{
    {"KB", 1024.0L},
    {"K", 1024.0L},
    {"MB", 1048576.0L},
    {"M", 1048576.0L},
    {"GB", 1073741824.0L},
    {"G", 1073741824.0L},
    {"TB", 1099511627776.0L},
    {"T", 1099511627776.0L},
}};

}  // namespace

bool try_parse_cleanup_algo(const std::string& text, cleanup_algo& out) {
    return try_parse_name(CLEANUP_ALGO_NAMES, text, out);
}

bool try_parse_cleanup_policy(const std::string& text, cleanup_policy& out) {
    return try_parse_name(CLEANUP_POLICY_NAMES, text, out);
}

bool try_parse_cleanup_threshold(const std::string& text, long double& out) {
    char* end = nullptr;
    errno = 0;
    const long double value = std::strtold(text.c_str(), &end);
    // strtold also reads "nan", "inf" and "infinity": no comparison with a used size ever acts on
    // them.
    if (errno != 0 || end == text.c_str() || !std::isfinite(value)) {
        return false;
    }
    out = value;
    if (end == text.c_str() + text.size()) {
        return true;
    }
    const std::string rest =
        utils::str::trim_left(std::string_view(text).substr(end - text.c_str()));
    if (rest == PERCENT_SUFFIX) {
        out = -value;
        return true;
    }
    for (const SizeSuffix& suffix : SIZE_SUFFIXES) {
        if (::strcasecmp(rest.c_str(), suffix.text) == 0) {
            const long double bytes = value * suffix.multiplier;
            if (!std::isfinite(bytes)) {
                return false;
            }
            out = bytes;
            return true;
        }
    }
    return false;
}

bool try_parse_socket_bytes(const std::string& text, std::uint64_t& out) {
    constexpr long double LARGEST = 2147483647.0L;
    long double bytes = 0;
    // A sign or a percentage would parse as a threshold; neither is a size.
    if (text.find_first_of("-%") != std::string::npos ||
        !try_parse_cleanup_threshold(text, bytes) || bytes > LARGEST) {
        return false;
    }
    out = static_cast<std::uint64_t>(bytes);
    return true;
}

bool try_parse_mode_mask(const std::string& text, mode_t& out) {
    constexpr mode_t LARGEST = 0777;
    if (text.empty()) {
        return false;
    }
    mode_t mask = 0;
    for (const char digit : text) {
        // Checked digit by digit, so that a long run of digits never overflows.
        if (digit < '0' || digit > '7') {
            return false;
        }
        mask = mask * 8 + static_cast<mode_t>(digit - '0');
        if (mask > LARGEST) {
            return false;
        }
    }
    out = mask;
    return true;
}

bool try_parse_max_age(const std::string& text, std::uint64_t& out) {
    if (text == "0") {
        out = 0;
        return true;
    }
    std::uint64_t age = 0;
    if (!has_max_age_unit(text) || !utils::time::try_parse_timer(text, age)) {
        return false;
    }
    out = age;
    return true;
}

int Configuration::set_flag(const std::string& key, std::ostringstream& detail) {
    if (key == "allowed_sources") {
        allowed_sources = net::SourceFilter();
        return APPLIED;
    }
    if (key == "catalog") {
        catalog.clear();
        return APPLIED;
    }
    return StatExtension::set_flag(key, detail);
}

int Configuration::set_value(const std::string& key, const std::string& value,
                             std::ostringstream& detail) {
    if (key == "storage") {
        storage = value;
        return APPLIED;
    }
    if (key == "storage_mode_mask") {
        mode_t mask = 0;
        const bool parsed = try_parse_mode_mask(value, mask);
        if (parsed) {
            storage_mode_mask = mask;
        }
        return to_status(parsed);
    }
    if (key == "storage_cleanup_algo") {
        return to_status(try_parse_cleanup_algo(value, storage_cleanup_algo));
    }
    if (key == "storage_cleanup_policy") {
        return to_status(try_parse_cleanup_policy(value, storage_cleanup_policy));
    }
    if (key == "storage_cleanup_threshold") {
        return to_status(try_parse_cleanup_threshold(value, storage_cleanup_threshold));
    }
    if (key == "storage_cleanup_timer") {
        return to_status(utils::time::try_parse_timer(value, storage_cleanup_timer));
    }
    if (key == "storage_max_age") {
        return to_status(try_parse_max_age(value, storage_max_age));
    }
    if (key == "media_buffer_size") {
        return to_status(
            utils::str::try_parse_value<unsigned long, 10>(value, media_buffer_size).succeeded());
    }
    if (key == "media_buffers_count") {
        return to_status(
            utils::str::try_parse_value<unsigned long, 10>(value, media_buffers_count).succeeded());
    }
    if (key == "receive_buffer_size") {
        return to_status(try_parse_socket_bytes(value, receive_buffer_size));
    }
    if (key == "receive_batch") {
        std::uint64_t batch = 0;
        const bool parsed =
            utils::str::try_parse_value<unsigned long, 10>(value, batch).succeeded() &&
            batch >= 1 && batch <= MAX_RECEIVE_BATCH;
        if (parsed) {
            receive_batch = batch;
        }
        return to_status(parsed);
    }
    if (key == "receive_batch_delay") {
        return to_status(utils::time::try_parse_timer(value, receive_batch_delay));
    }
    if (key == "receive_ring_size") {
        return to_status(try_parse_socket_bytes(value, receive_ring_size));
    }
    if (key == "receive_ring_nft") {
        return to_status(conf::try_parse_bool(value, receive_ring_nft));
    }
    if (key == "flush_open_sessions_on_stop") {
        return to_status(conf::try_parse_bool(value, flush_open_sessions_on_stop));
    }
    if (key == "metrics_file") {
        metrics_file = value;
        return APPLIED;
    }
    if (key == "allowed_sources") {
        std::string error;
        if (net::SourceFilter::try_parse(value, allowed_sources, error)) {
            return APPLIED;
        }
        detail << error;
        return FAILED_WITH_DETAIL;
    }
    if (key == "catalog") {
        if (const std::string problem = catalog::location_problem(value); !problem.empty()) {
            detail << problem;
            return FAILED_WITH_DETAIL;
        }
        catalog = value;
        return APPLIED;
    }
    if (key == "write_media") {
        return to_status(conf::try_parse_bool(value, write_media));
    }
    if (key == "media_write_repair") {
        return to_status(conf::try_parse_bool(value, media_write_repair));
    }
    if (key == "write_leg_summary") {
        return to_status(conf::try_parse_bool(value, write_leg_summary));
    }
    if (key == "storage_cleanup_spare_open_legs") {
        return to_status(conf::try_parse_bool(value, storage_cleanup_spare_open_legs));
    }
    if (key == "storage_cleanup_remove_empty") {
        return to_status(conf::try_parse_bool(value, storage_cleanup_remove_empty));
    }
    return StatExtension::set_value(key, value, detail);
}

}  // namespace qm::recorder
