#pragma once

#include <cstdint>
#include <string>

#include "stats/report_snapshot.hpp"

// The recorder's counters for monitoring: every report period the report thread renders them in
// the Prometheus text exposition format and replaces the file with them, for the node exporter's
// textfile collector. The file is written whole under a temporary name in its directory and then
// renamed over the old one, so a reader sees the previous period or this one, never a part. A
// file that cannot be written costs one WARNING per kind of failure, and the recorder goes on.
//
// Threads: owned and used by the report thread alone.

namespace qm::stats {

// What the metrics file shows besides the report's rows.
struct ProcessMetrics {
    // Datagrams the system dropped since the recorder started receiving: for its socket, or for
    // its packet ring when it reads one.
    std::uint64_t kernel_drops = 0;
    std::uint64_t resident_bytes = 0;
    // Datagrams dropped since the start because `allowed_sources` refused their sender.
    std::uint64_t refused_datagrams = 0;
};

class MetricsFile {
public:
    explicit MetricsFile(std::string path);

    // Renders the metrics and replaces the file with them.
    void write(const ReportSnapshot& snapshot, const ProcessMetrics& process);

    // The text: "# HELP", "# TYPE" and the sample of every row in report order, then the rows
    // of the metrics file only, the kernel drops, the resident memory and the refused datagrams.
    static std::string render(const ReportSnapshot& snapshot, const ProcessMetrics& process);

    // The resident memory of this process, from /proc/self/statm; 0 when it cannot be read.
    static std::uint64_t resident_bytes();

private:
    // Logs the failure unless it is the one logged last.
    void report_failure(const std::string& step, int error);

    std::string m_path;
    std::string m_temporary_path;
    // The failure last logged, "step: errno"; empty once a write succeeded.
    std::string m_last_failure;
};

}  // namespace qm::stats
