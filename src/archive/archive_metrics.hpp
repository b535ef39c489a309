#pragma once

#include <string>

#include "archive/archive_statistic.hpp"

// The archiver's counters for monitoring, in the Prometheus text format of the recorder's metrics
// file, for the node exporter's textfile collector. The file is written whole under a temporary
// name in its directory and renamed over the old one, so a reader never sees a part.
// Threads: the thread that owns the file; the counters may change meanwhile.

namespace qm::archive {

// "# HELP", "# TYPE" and the sample of each counter.
std::string render_metrics(const ArchiveStatistic& statistic);

// Replaces `path` with the rendered counters; false, with `error` saying why, when it cannot.
bool write_metrics(const std::string& path, const ArchiveStatistic& statistic, std::string& error);

}  // namespace qm::archive
