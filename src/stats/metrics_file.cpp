#include "stats/metrics_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>

#include "log/logger.hpp"

namespace qm::stats {
namespace {

constexpr std::string_view PREFIX = "quillmarwriter_";

// The label without its dots and colon, for the help text: "session lost packets number".
std::string_view help_of(std::string_view label) {
    const std::size_t end = label.find_last_not_of(".: ");
    return label.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

void render_metric(std::ostream& out, std::string_view name, std::string_view help, bool gauge,
                   std::uint64_t value) {
    out << "# HELP " << PREFIX << name << ' ' << help << '\n';
    out << "# TYPE " << PREFIX << name << (gauge ? " gauge\n" : " counter\n");
    out << PREFIX << name << ' ' << value << '\n';
}

void render_rows(std::ostream& out, const std::vector<ReportRow>& rows) {
    for (const ReportRow& row : rows) {
        render_metric(out, row.metric, help_of(row.label), row.gauge, row.value);
    }
}

bool write_all(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        written += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

MetricsFile::MetricsFile(std::string path)
    : m_path(std::move(path)), m_temporary_path(m_path + ".tmp") {}

void MetricsFile::write(const ReportSnapshot& snapshot, const ProcessMetrics& process) {
    const std::string text = render(snapshot, process);
    const int fd = ::open(m_temporary_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        report_failure("cannot create " + m_temporary_path, errno);
        return;
    }
    const bool written = write_all(fd, text);
    const int write_error = errno;
    if (::close(fd) != 0 || !written) {
        report_failure("cannot write " + m_temporary_path, written ? errno : write_error);
        ::unlink(m_temporary_path.c_str());
        return;
    }
    if (::rename(m_temporary_path.c_str(), m_path.c_str()) != 0) {
        report_failure("cannot rename " + m_temporary_path + " to " + m_path, errno);
        ::unlink(m_temporary_path.c_str());
        return;
    }
    m_last_failure.clear();
}

void MetricsFile::report_failure(const std::string& step, int error) {
    const std::string failure = step + ": " + std::strerror(error);
    if (failure != m_last_failure) {
        QM_LOG_WARNING("STATISTIC_SERVICE: metrics file not written: " << failure);
        m_last_failure = failure;
    }
}

std::string MetricsFile::render(const ReportSnapshot& snapshot, const ProcessMetrics& process) {
    std::ostringstream out;
    render_rows(out, snapshot.manager);
    render_rows(out, snapshot.writer);
    render_rows(out, snapshot.packet_reader);
    render_rows(out, snapshot.metrics_only);
    render_metric(out, "kernel_drops_total",
                  "datagrams the system dropped because the receive buffer was full", false,
                  process.kernel_drops);
    render_metric(out, "resident_memory_bytes", "resident memory of the recorder", true,
                  process.resident_bytes);
    render_metric(out, "refused_datagrams_total",
                  "datagrams dropped because allowed_sources does not list their sender", false,
                  process.refused_datagrams);
    return out.str();
}

std::uint64_t MetricsFile::resident_bytes() {
    std::ifstream statm("/proc/self/statm");
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    if (!(statm >> size >> resident)) {
        return 0;
    }
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace qm::stats
