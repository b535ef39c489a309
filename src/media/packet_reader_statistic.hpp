#pragma once

#include "core/queue_idle_reader_statistic.hpp"
#include "core/statistic_counter.hpp"

// The packet reader's counters: its queue's five (reported as "packet queue ..."), then one per
// way a datagram can be refused and one per packet type passed on. Every datagram handed to the
// reader ends in exactly one of `dropped_elements` and the eleven below, or in `passed_elements`
// and then, once the reader thread has taken it, in exactly one of the seven after the three
// "dropped" counters.
//
// Threads: the "dropped" counters (with the queue's `passed_elements` and `dropped_elements`) are
// written by the receiving thread that calls `read_from`, all others by the packet-reader thread;
// the statistics thread reads them all at any time.

namespace qm::media {

struct PacketReaderStatistic : QueueIdleReaderStatistic {
    StatisticCounter packet_dropped_by_min_length;
    StatisticCounter packet_dropped_by_max_length;
    StatisticCounter packet_dropped_by_failed_allocation;
    StatisticCounter packet_rejected_by_bad_marker;
    StatisticCounter packet_rejected_by_version;
    StatisticCounter packet_rejected_by_corrupted_size;
    StatisticCounter packet_rejected_by_unknown_type;
    StatisticCounter packet_start_type;
    StatisticCounter packet_term_type;
    StatisticCounter packet_data_type;
    StatisticCounter packet_ctrl_type;
};

}  // namespace qm::media
