#include "io/io_session_path.hpp"

#include <time.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string_view>

#include "log/logger.hpp"
#include "utils/str.hpp"

namespace qm::io {
namespace {

constexpr std::uint64_t MICROSECONDS_PER_SECOND = 1000000;

// The day, hour and minute directories in one format string, built once, so that one strftime
// call renders all three from the same broken-down time.
const std::string TIME_PATH_FORMAT = std::string("%Y-%m-%d") + "/" + "%H" + "/" + "%M";
constexpr std::string_view TIME_PATH_FALLBACK = "0000-00-00/00/00";
// Room for any year a 32-bit `tm_year` holds ("-2147481748-01-01/00/00" is 23 characters).
constexpr std::size_t TIME_PATH_CAPACITY = 32;
constexpr std::string_view FILE_NAME = "media.qm";
// The last second of the year 9999, 9999-12-31T23:59:59 UTC: the last whose day has four digits.
constexpr std::time_t LAST_PATH_SECOND = 253402300799;

// No conversion below can cut a start second short.
static_assert(static_cast<std::uint64_t>(std::numeric_limits<std::time_t>::max()) >=
                  std::numeric_limits<std::uint64_t>::max() / MICROSECONDS_PER_SECOND,
              "a 64-bit time_t is needed to hold every start second");

// The three time levels of `seconds` in UTC; empty when the second has no calendar date or its
// text does not fit.
std::string_view render_time_path(std::time_t seconds, char (&out)[TIME_PATH_CAPACITY]) {
    tm utc{};
    if (::gmtime_r(&seconds, &utc) == nullptr) {
        return {};
    }
    return {out, std::strftime(out, sizeof out, TIME_PATH_FORMAT.c_str(), &utc)};
}

// The start second of `ts`, clamped to the years 1970 to 9999; true when it had to be. The paths of
// all legs must sort by time and their day must be a "YYYY-MM-DD" the cleanup takes for a day, but
// a sender's clock can be anywhere. A `ts` that is negative as a signed count (the sender's clock
// before 1970) gives 1970-01-01T00:00:00, one after 9999 gives 9999-12-31T23:59:59: such legs
// sort first and last.
bool clamp_start_second(std::uint64_t ts, std::time_t& second) {
    if (static_cast<std::int64_t>(ts) < 0) {
        second = 0;
        return true;
    }
    const auto whole = static_cast<std::time_t>(ts / MICROSECONDS_PER_SECOND);
    second = std::min(whole, LAST_PATH_SECOND);
    return whole != second;
}

}  // namespace

std::string session_path(std::uint64_t ts, const Uuid& uuid) {
    std::time_t second = 0;
    const bool clamped = clamp_start_second(ts, second);
    std::string path = detail::session_path_at(second, ts, uuid);
    if (clamped) {
        QM_LOG_WARNING("QUILLMAR_IO: timestamp ("
                       << ts << ") of session \"" << utils::str::print_uuid(uuid.data())
                       << "\" is outside the years 1970 to 9999: filed under \"" << path << "\"");
    }
    return path;
}

namespace detail {

std::string session_path_at(std::time_t seconds, std::uint64_t ts, const Uuid& uuid) {
    const std::string uuid_text = utils::str::print_uuid(uuid.data());
    char buffer[TIME_PATH_CAPACITY];
    std::string_view time_path = render_time_path(seconds, buffer);
    if (time_path.empty()) {
        QM_LOG_ERROR("QUILLMAR_IO: unable to compose time path for session \""
                     << uuid_text << "\", timestamp (" << ts << ")");
        time_path = TIME_PATH_FALLBACK;
    }
    std::string path;
    path.reserve(time_path.size() + 1 + uuid_text.size() + 1 + FILE_NAME.size());
    path.append(time_path).append("/").append(uuid_text).append("/").append(FILE_NAME);
    return path;
}

}  // namespace detail
}  // namespace qm::io
