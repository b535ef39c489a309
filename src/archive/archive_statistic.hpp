#pragma once

#include <atomic>
#include <cstdint>

// The archiver's counters, written by its thread and read by the thread that renders the metrics
// file. Each is a separate figure that no other memory is published through, so relaxed loads
// and stores suffice; a reader may see one counter of a leg's upload a moment before another.

namespace qm::archive {

struct ArchiveStatistic {
    std::atomic<std::uint64_t> legs_uploaded{0};
    std::atomic<std::uint64_t> bytes_uploaded{0};
    // Uploads, verifications and catalogue writes that failed (each try counts).
    std::atomic<std::uint64_t> failures{0};
    // Recorded legs not archived yet, and their bytes, at the last look at the catalogue.
    std::atomic<std::uint64_t> backlog_legs{0};
    std::atomic<std::uint64_t> backlog_bytes{0};
};

}  // namespace qm::archive
