#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

// The values of one statistics report, read once from the components' records, so that the framed
// text and the metrics file of one period show the same numbers. Plain values; built and read by
// the report thread (or a test).

namespace qm::stats {

// One value line of the report and the name under which the metrics file exports it.
struct ReportRow {
    // As the report prints it: dots, colon and blank included.
    std::string_view label;
    std::uint64_t value = 0;
    // Printed with its size in binary units.
    bool bytes = false;
    // The metric's name after "quillmarwriter_"; counters end in "_total".
    std::string_view metric;
    // A level that goes up and down (a gauge) rather than a count that only grows.
    bool gauge = false;
};

struct ReportSnapshot {
    std::vector<ReportRow> manager;
    std::vector<ReportRow> writer;
    std::vector<ReportRow> packet_reader;
    // Rows the metrics file shows after the report's and the framed text leaves out; their label
    // is only the help text.
    std::vector<ReportRow> metrics_only;
};

}  // namespace qm::stats
