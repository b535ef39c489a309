#pragma once

#include "core/statistic_counter.hpp"

// The media buffer pool's counters, read at any moment by the statistics thread.
//
// Threads: `buffer_pool_acquire_errors` is written only by the session thread (acquire),
// `buffer_pool_release_errors` only by the media writer thread (release). `buffer_pool_elements`
// is written by both, but only ever by a plain store of the free-list size that the writing
// thread has just seen, never by a read-modify-write, so no update can be lost to the other
// thread; a report may show a value a moment old. The counters are relaxed atomics: nothing else
// is published through them.

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
