#include "archive/archive_metrics.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace qm::archive {
namespace {

void add(std::ostringstream& out, const char* name, const char* type, const char* help,
         const std::atomic<std::uint64_t>& value) {
    out << "# HELP " << name << ' ' << help << '\n'
        << "# TYPE " << name << ' ' << type << '\n'
        << name << ' ' << value.load(std::memory_order_relaxed) << '\n';
}

}  // namespace

std::string render_metrics(const ArchiveStatistic& statistic) {
    std::ostringstream out;
    add(out, "quillmar_archive_legs_uploaded_total", "counter",
        "Legs uploaded, verified and marked archived since the start.", statistic.legs_uploaded);
    add(out, "quillmar_archive_bytes_uploaded_total", "counter",
        "Bytes of the legs' files uploaded and verified since the start.",
        statistic.bytes_uploaded);
    add(out, "quillmar_archive_failures_total", "counter",
        "Uploads, checks and catalogue requests that failed since the start.", statistic.failures);
    add(out, "quillmar_archive_backlog_legs", "gauge",
        "Recorded legs not archived yet, at the last look at the catalogue.",
        statistic.backlog_legs);
    add(out, "quillmar_archive_backlog_bytes", "gauge",
        "Bytes of the recorded legs not archived yet.", statistic.backlog_bytes);
    return out.str();
}

bool write_metrics(const std::string& path, const ArchiveStatistic& statistic, std::string& error) {
    const std::string temporary = path + ".tmp";
    {
        std::ofstream file(temporary, std::ios::trunc);
        file << render_metrics(statistic);
        if (!file.flush()) {
            error = "cannot write " + temporary + ": " + std::strerror(errno);
            return false;
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = "cannot rename " + temporary + " to " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace qm::archive
