#pragma once

#include <cstdint>

#include "media/packet_reader_statistic.hpp"

// Sums over a packet reader's record that tests and the fuzzer use to check that every datagram
// lands in exactly one counter. Read them when neither reader thread nor receiver is busy.

namespace qm::test {

// Datagrams that `read_from` refused: too short, too long, no buffer, queue full.
inline std::uint64_t refused_on_receive(const media::PacketReaderStatistic& s) {
    return s.packet_dropped_by_min_length + s.packet_dropped_by_max_length +
           s.packet_dropped_by_failed_allocation + s.dropped_elements;
}

// Queued datagrams that the reader side has settled: rejected, or passed on as one of the types.
inline std::uint64_t settled_by_reader(const media::PacketReaderStatistic& s) {
    return s.packet_rejected_by_bad_marker + s.packet_rejected_by_version +
           s.packet_rejected_by_corrupted_size + s.packet_rejected_by_unknown_type +
           s.packet_start_type + s.packet_term_type + s.packet_data_type + s.packet_ctrl_type;
}

// Packets passed on to the listener.
inline std::uint64_t notified(const media::PacketReaderStatistic& s) {
    return s.packet_start_type + s.packet_term_type + s.packet_data_type + s.packet_ctrl_type;
}

}  // namespace qm::test
