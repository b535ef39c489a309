#pragma once

#include "core/statistic_counter.hpp"

// The session table's counters. Written only by the packet-reader thread that runs the session
// manager; read at any moment by the statistics thread, which prints all but
// `session_audit_calls`. The recorder's writing manager extends this record with counters of its
// own, so the manager takes it by pointer to this base.

namespace qm::media {

struct SessionManagerStatistic {
    // Table size after every insert, erase and audit.
    StatisticCounter session;
    // Zombies in the table.
    StatisticCounter session_zombie;
    // Start packets for an id that is live and not a zombie (a possible CRC64 collision).
    StatisticCounter session_existing_index_errors;
    StatisticCounter session_allocation_errors;
    // Data, control and terminate packets whose id is not in the table.
    StatisticCounter session_unknown_index_errors;
    // Sum of the forward gaps in the sides' sequence numbers.
    StatisticCounter session_lost_packets;
    // Data packets whose `seq` is not above the side's last one; they are dropped.
    StatisticCounter session_sequence_break_errors;
    StatisticCounter session_audit_calls;
    // Audit runs that timed out at least one session.
    StatisticCounter session_audit_executions;
};

}  // namespace qm::media
