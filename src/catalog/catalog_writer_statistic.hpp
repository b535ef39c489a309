#pragma once

#include "core/statistic_counter.hpp"

// The catalogue writer's counters, in the metrics file only. `rows_waiting` and
// `rows_overflowed` are written under the writer's queue lock by whichever thread queues or takes
// (the lock makes it one writer at a time); the others by the catalogue thread. The statistics
// thread reads all of them at any time.

namespace qm::catalog {

struct CatalogWriterStatistic {
    // Legs written to the catalogue, by the queue or by a catch-up.
    StatisticCounter rows_written;
    // Attempts to reach or write the catalogue that failed.
    StatisticCounter write_failures;
    // Legs and removed directories queued and not yet written.
    StatisticCounter rows_waiting;
    // Legs and removed directories that found the queue full; a catch-up takes them from the
    // storage instead.
    StatisticCounter rows_overflowed;
};

}  // namespace qm::catalog
