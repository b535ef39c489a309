#include "io/io_session_path.hpp"

#include <time.h>

#include <string_view>

#include "log/logger.hpp"
#include "utils/str.hpp"

namespace qm::io {
namespace {

// The three time levels, built once from their pieces.
const std::string TIME_PATH_FORMAT = std::string("%Y-%m-%d") + "/" + "%H" + "/" + "%M";
constexpr std::string_view TIME_PATH_FALLBACK = "0000-00-00/00/00";
constexpr std::size_t TIME_PATH_CAPACITY = 32;
constexpr std::string_view FILE_NAME = "media.qm";

}  // namespace

std::string session_path(std::uint64_t ts, const Uuid& uuid) {
    const std::string uuid_text = utils::str::print_uuid(uuid.data());
    const time_t seconds = static_cast<time_t>(ts / 1000000);
    tm utc{};
    char time_path[TIME_PATH_CAPACITY];
    std::size_t length = 0;
    if (::gmtime_r(&seconds, &utc) != nullptr) {
        length = std::strftime(time_path, sizeof time_path, TIME_PATH_FORMAT.c_str(), &utc);
    }
    std::string path;
    if (length == 0) {
        QM_LOG_ERROR("QUILLMAR_IO: unable to compose time path for session \""
                     << uuid_text << "\", timestamp (" << ts << ")");
        path = TIME_PATH_FALLBACK;
    } else {
        path.assign(time_path, length);
    }
    path += "/";
    path += uuid_text;
    path += "/";
    path += FILE_NAME;
    return path;
}

}  // namespace qm::io
