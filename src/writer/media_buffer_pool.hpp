#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/queue.hpp"
#include "core/statistic_container.hpp"
#include "writer/media_buffer.hpp"
#include "writer/media_buffer_pool_statistic.hpp"

// Owns every media buffer the recorder uses: one block allocated at construction and carved into
// 128-byte aligned slots, each a MediaBuffer header followed by its media part. Nothing is
// allocated afterwards. Free buffers wait in a lock-free single-producer/single-consumer ring
// whose capacity is the number of buffers, so the ring can always take back every buffer there is.
//
// Invariant: every buffer is in exactly one place: the free list, the session thread (being
// filled), or the media writer (queued, being written). The free list is the ring and beside it a
// stash of the session thread's own, for buffers that thread acquired but could not hand to the
// media writer: it cannot put them into the ring, whose one producer is the media writer.
// Acquire takes from the stash first, then from the ring's head; release puts back at the ring's
// tail, so buffers from the ring come out in the order in which they went back.
//
// Threads: built and destroyed while no other thread uses it (by the writing manager). In between
// exactly two threads use it: the session thread acquires (the ring's consumer) and gives back
// (the stash is its alone), the media writer thread only releases (the ring's producer). The
// ring's release/acquire pair hands each buffer, with everything written to it, from one to the
// other; the pool adds no lock, and one atomic only: the stash's count, which `free_count` reads.
// `capacity`, `free_count`, `slot_size` and `block_size` may be called from any thread;
// `free_count` is then a snapshot. The statistic counters are read by the statistics thread at any
// time.

namespace qm::writer {

class MediaBufferPool : public StatisticContainer<MediaBufferPoolStatistic> {
public:
    // Slots and the block start are aligned to this, so that no two buffers share a cache line
    // and each header starts on a line of its own.
    static constexpr std::uint64_t SLOT_ALIGNMENT = 128;

    // `count` buffers whose media parts hold `media_size` bytes, rounded up so that each slot
    // (header and media part) is a multiple of 128 bytes. Logs the layout at SYSTEM level.
    // Throws std::bad_alloc when the block cannot be allocated or laid out (logged where the
    // layout check fails), and, without a log line, when `count` is 0 or the sizes overflow.
    // REQUIRES: `statistic` outlives the pool.
    MediaBufferPool(unsigned long count, unsigned long media_size,
                    MediaBufferPoolStatistic& statistic);
    // The same with a statistic record of the pool's own (tests and tools; read it through
    // `statistic()`).
    MediaBufferPool(unsigned long count, unsigned long media_size);
    // Frees the block after destroying every header in it, which drops the session references
    // the headers still hold. Buffers still out of the pool are not waited for and must not be
    // used afterwards.
    // REQUIRES: no other thread uses the pool any more.
    ~MediaBufferPool() override;

    MediaBufferPool(const MediaBufferPool&) = delete;
    MediaBufferPool& operator=(const MediaBufferPool&) = delete;

    // A free buffer, or null when none is left (counted, not logged: the caller says what it
    // lost). Its `size` is 0 and its `session` whatever it was last filled for.
    // REQUIRES: called only by the session thread.
    [[nodiscard]] MediaBuffer* acquire();

    // Sets `size` to 0 and puts the buffer back; false (logged and counted) when the free list is
    // full already, which only a broken accounting can cause: the pool then does not hold the
    // buffer. Leaves `session` as it is.
    // REQUIRES: called only by the media writer thread; `buffer` is not null.
    bool release(MediaBuffer* buffer);

    // Takes back a buffer that the session thread acquired and could not hand to the media
    // writer: sets `size` to 0 and keeps it for that thread's next `acquire`, before any buffer of
    // the ring. False, with the line of a release into a full free list, when the pool holds
    // every buffer already: the pool then does not hold this one. Not counted: the release errors
    // counter has one writer, the media writer thread. Leaves `session` as it is.
    // REQUIRES: called only by the session thread; `buffer` is not null.
    bool give_back(MediaBuffer* buffer);

    // The number of buffers, which is the ring's capacity.
    std::uint64_t capacity() const { return m_free->capacity(); }
    // Buffers in the free list (ring and stash) now.
    std::uint64_t free_count() const {
        return m_free->size() + m_stashed.load(std::memory_order_relaxed);
    }
    // Bytes per slot: the 40-byte header and the media part.
    std::uint64_t slot_size() const { return m_slot_size; }
    // Bytes of the one allocation: every slot and 128 spare bytes for the alignment of its start.
    std::uint64_t block_size() const { return m_block_size; }

private:
    using FreeList = DynamicQueue<MediaBuffer*, false>;

    MediaBufferPool(unsigned long count, unsigned long media_size,
                    MediaBufferPoolStatistic* statistic);
    void update_elements();
    void log_release_error();

    std::uint64_t m_slot_size = 0;
    std::uint64_t m_block_size = 0;
    std::unique_ptr<std::uint8_t[]> m_block;
    std::unique_ptr<FreeList> m_free;
    // The buffers the session thread gave back, last in first out, with room for every buffer.
    // The session thread's alone.
    std::unique_ptr<MediaBuffer*[]> m_stash;
    // How many of `m_stash` hold a buffer. Written by the session thread only; read by
    // `free_count` on any thread. Relaxed: other threads only count with it and never read the
    // stash, so it publishes nothing.
    std::atomic<std::uint64_t> m_stashed{0};
    // The first slot; `capacity()` slots follow it back to back. For the destructor.
    std::uint8_t* m_first_slot = nullptr;
};

}  // namespace qm::writer
