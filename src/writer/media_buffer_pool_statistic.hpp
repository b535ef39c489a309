#pragma once

#include "core/statistic_counter.hpp"

// The media buffer pool's counters. `buffer_pool_elements` is written by both the session thread
// (acquire) and the writer thread (release), each storing what it sees, so a report may show a
// value a moment old; the error counters each have one writer. The statistics thread reads them.

namespace qm::writer {

struct MediaBufferPoolStatistic {
    // Free buffers after the last construction, acquire or release.
    StatisticCounter buffer_pool_elements;
    // Acquires that found no free buffer.
    StatisticCounter buffer_pool_acquire_errors;
    // Releases into a full free list.
    StatisticCounter buffer_pool_release_errors;
};

}  // namespace qm::writer
