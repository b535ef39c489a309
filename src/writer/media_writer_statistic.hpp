#pragma once

#include "core/queue_reader_statistic.hpp"
#include "core/statistic_counter.hpp"

// The media writer's counters behind those of its queue. The queue's `passed_elements` and
// `dropped_elements` are written by the pushing thread (the session thread), everything else by
// the writer thread; the statistics thread reads all of them at any time.
//
// Of the bytes of the buffers the writer gets to write, every one is either in `written_bytes` or
// in `unwritten_bytes`: their sum is exactly what was handed to the files.

namespace qm::writer {

struct MediaWriterStatistic : QueueReaderStatistic {
    // Bytes of buffers the system took; none of a buffer whose file then failed to close.
    StatisticCounter written_bytes;
    // Reported only; nothing in the writer counts lost bytes of its own.
    StatisticCounter written_lost_bytes;
    StatisticCounter buffer_null_sessions_errors;
    StatisticCounter directory_check_or_create_errors;
    StatisticCounter file_open_errors;
    // Buffers whose write or close failed.
    StatisticCounter file_write_errors;
    // Bytes of buffers the system did not take (disk full, quota, I/O error), or that it took
    // before the file's close failed. In the metrics file only.
    StatisticCounter unwritten_bytes;
    // With `media_write_repair`: bytes taken by a write that failed part-way and cut off again,
    // and file headers written again because the buffer that carried one never reached the disk.
    // In the metrics file only.
    StatisticCounter repair_cut_bytes;
    StatisticCounter repair_headers;
    // Leg summaries ("leg.json") that could not be written. In the metrics file only.
    StatisticCounter leg_summary_errors;
};

}  // namespace qm::writer
