#pragma once

#include "core/queue_reader_statistic.hpp"
#include "core/statistic_counter.hpp"

namespace qm {

// Counters of a queue whose reader has an idle hook: the three queue counters, then two written
// by the reader thread. Records of concrete readers extend this one with their own counters.
struct QueueIdleReaderStatistic : QueueReaderStatistic {
    // Passes that found the queue empty.
    StatisticCounter idle_checks;
    // Passes that found the queue empty and whose idle hook then reported work.
    StatisticCounter idle_hits;
};

}  // namespace qm
