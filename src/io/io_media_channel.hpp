#pragma once

#include <cstdint>

#include "io/io_media_frame.hpp"

// The frames of one side of a recorded session, in the order they were written. A channel is
// owned by the stream that hands it out (`QuillmarSessionStream::streams`) and lives as long as
// that stream. Not safe for concurrent use: a stream and its channels are used by one thread at a
// time.

namespace qm::io {

class MediaChannel {
public:
    virtual ~MediaChannel() = default;

    // The side: 0 inbound, 1 outbound.
    virtual std::uint16_t id() const = 0;

    // Fills `frame` with the channel's next frame and returns 1; returns 0, leaving `frame` as it
    // was, once the channel has ended. An ended channel stays ended.
    [[nodiscard]] virtual int read(MediaFrame& frame) = 0;
};

}  // namespace qm::io
