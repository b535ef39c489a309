#pragma once

#include <cstdint>
#include <memory>

#include "core/queue.hpp"
#include "core/statistic_container.hpp"
#include "writer/media_buffer.hpp"
#include "writer/media_buffer_pool_statistic.hpp"

// Owns every media buffer the recorder uses: one block allocated at construction and carved into
// 128-byte aligned slots, each a MediaBuffer header followed by its media part. Nothing is
// allocated afterwards. Free buffers wait in a lock-free single-producer/single-consumer ring.
//
// Threads: built and destroyed by the writing manager's owner while no other thread uses it.
// Exactly two threads use it meanwhile: the session thread only acquires (it consumes the free
// list), the media writer thread only releases (it produces into it). The statistic counters are
// read by the statistics thread at any time.

namespace qm::writer {

class MediaBufferPool : public StatisticContainer<MediaBufferPoolStatistic> {
public:
    // Slots and the block start are aligned to this, so that no two buffers share a cache line.
    static constexpr std::uint64_t SLOT_ALIGNMENT = 128;

    // `count` buffers with media parts of at least `media_size` bytes. Throws std::bad_alloc when
    // the block cannot be allocated or laid out. REQUIRES: `statistic` outlives the pool.
    MediaBufferPool(unsigned long count, unsigned long media_size,
                    MediaBufferPoolStatistic& statistic);
    // Frees the block. Buffers still out of the pool are not waited for.
    ~MediaBufferPool();

    MediaBufferPool(const MediaBufferPool&) = delete;
    MediaBufferPool& operator=(const MediaBufferPool&) = delete;

    // A free buffer, or null when none is left (counted, not logged: the caller says what it
    // lost). Its `size` is 0. REQUIRES: called only by the session thread.
    [[nodiscard]] MediaBuffer* acquire();

    // Empties the buffer and puts it back; false (logged and counted) when the free list is full
    // already, which only a broken accounting can cause. Leaves `session` as it is.
    // REQUIRES: called only by the media writer thread.
    bool release(MediaBuffer* buffer);

    // The number of buffers, which is the free list's capacity.
    std::uint64_t capacity() const { return m_free->capacity(); }
    // Buffers in the free list now; from a thread other than the two users, a snapshot.
    std::uint64_t free_count() const { return m_free->size(); }
    std::uint64_t slot_size() const { return m_slot_size; }

private:
    using FreeList = DynamicQueue<MediaBuffer*, false>;

    // Places a header at every slot from `first` and fills the free list; throws std::bad_alloc
    // when the count does not come out as calculated.
    void lay_out(std::uint8_t* first, std::uint64_t usable);
    void update_elements();

    std::uint64_t m_slot_size;
    std::uint64_t m_block_size;
    std::unique_ptr<std::uint8_t[]> m_block;
    std::unique_ptr<FreeList> m_free;
    // Every header placed, for the destructor; the same order as the slots.
    std::uint8_t* m_first_slot = nullptr;
    std::uint64_t m_laid_out = 0;
};

}  // namespace qm::writer
