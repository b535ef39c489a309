#pragma once

#include <cstddef>
#include <cstdint>

#include "core/rc_ptr.hpp"
#include "media/session.hpp"

// One block of media bytes bound for one session's file. Buffers live at the start of their own
// slots in the media buffer pool's single block, their bytes right behind them; only the pool
// constructs and destroys them.
//
// Threads: a buffer belongs to one thread at a time, and the hand-overs between them are the
// rings' release/acquire pairs, so no field needs an atomic.
// - The pool, while no other thread uses it, sets `data` and `capacity` once, and `size` = 0,
//   `session` = null.
// - The session thread takes a buffer from the pool (acquire), writes media bytes from `data`,
//   sets `size` and `session`, and pushes the buffer into the media writer's queue.
// - The media writer thread takes it from that queue, reads `session` (path, flags) and the
//   `size` bytes, then gives it back to the pool (release), which sets `size` to 0 on that thread.
//   `session` stays as it is until the session thread fills the buffer again.
// - A buffer whose push the media writer's queue refuses never changes thread: the session thread
//   gives it back to the pool itself (give_back), which sets `size` to 0.

namespace qm::writer {

struct MediaBuffer {
    // The first media byte, right behind this header. Set once by the pool.
    std::uint8_t* data;
    // Media bytes per buffer: the slot size minus the header. Set once by the pool.
    std::uint64_t capacity;
    // Media bytes filled from `data`; back to 0 on every release.
    std::uint64_t size;
    // The session whose file the bytes belong to; kept after a release until the buffer is filled
    // again.
    rc_ptr<media::Session> session;
};

// The header in front of every media part (the counted reference takes 16 bytes), part of the
// pool's size arithmetic: slot = media part + 40, rounded up to 128.
inline constexpr std::uint64_t MEDIA_BUFFER_HEADER_SIZE = 40;
static_assert(sizeof(MediaBuffer) == MEDIA_BUFFER_HEADER_SIZE);

}  // namespace qm::writer
