#pragma once

#include "core/queue_reader_statistic.hpp"
#include "core/statistic_counter.hpp"

// The media writer's counters behind those of its queue. The queue's `passed_elements` and
// `dropped_elements` are written by the pushing thread (the session thread), everything else by
// the writer thread; the statistics thread reads all of them at any time.

namespace qm::writer {

struct MediaWriterStatistic : QueueReaderStatistic {
    // Bytes handed to the file stream.
    StatisticCounter written_bytes;
    // Reported only; nothing in the writer counts lost bytes of its own.
    StatisticCounter written_lost_bytes;
    StatisticCounter buffer_null_sessions_errors;
    StatisticCounter directory_check_or_create_errors;
    StatisticCounter file_open_errors;
    StatisticCounter file_write_errors;
};

}  // namespace qm::writer
