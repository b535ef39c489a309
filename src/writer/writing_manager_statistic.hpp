#pragma once

#include "core/statistic_counter.hpp"
#include "media/session_manager_statistic.hpp"

// The session table's counters followed by the recording's own. Written only by the session
// thread (the packet reader's, which runs the writing manager); read at any moment by the
// statistics thread.

namespace qm::writer {

struct WritingManagerStatistic : media::SessionManagerStatistic {
    // Payload bytes of every data packet of a recorded session.
    StatisticCounter session_media_received_bytes;
    // Payload bytes copied into a media buffer.
    StatisticCounter session_media_buffered_bytes;
    // Payload bytes thrown away: no buffer, a full writer queue, or a frame larger than a buffer.
    StatisticCounter session_media_dropped_bytes;
};

}  // namespace qm::writer
