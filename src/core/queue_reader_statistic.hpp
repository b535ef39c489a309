#pragma once

#include "core/statistic_counter.hpp"

namespace qm {

// Counters of one queue and its reader. `passed_elements` and `dropped_elements` are written by
// the producer thread (`push`), `elements` by the reader thread; the statistics thread reads all
// of them at any time, so a report may mix values from slightly different moments.
struct QueueReaderStatistic {
    // Elements in the queue, rewritten by the reader after every step.
    StatisticCounter elements;
    // Elements accepted by `push`.
    StatisticCounter passed_elements;
    // Elements refused by `push` because the queue was full.
    StatisticCounter dropped_elements;
};

}  // namespace qm
