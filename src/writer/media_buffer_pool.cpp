#include "writer/media_buffer_pool.hpp"

#include <algorithm>
#include <cassert>
#include <new>

#include "log/logger.hpp"

namespace qm::writer {
namespace {

// `value` rounded up to a multiple of `alignment`; false when that overflows.
bool round_up(std::uint64_t value, std::uint64_t alignment, std::uint64_t& out) {
    const std::uint64_t remainder = value % alignment;
    if (remainder == 0) {
        out = value;
        return true;
    }
    return !__builtin_add_overflow(value, alignment - remainder, &out);
}

}  // namespace

MediaBufferPool::MediaBufferPool(unsigned long count, unsigned long media_size,
                                 MediaBufferPoolStatistic& statistic)
    : MediaBufferPool(count, media_size, &statistic) {}

MediaBufferPool::MediaBufferPool(unsigned long count, unsigned long media_size)
    : MediaBufferPool(count, media_size, nullptr) {}

// Every throw below leaves through the members: the block and the ring, if made, are freed by
// their owners, and the headers placed so far hold no session yet, so there is nothing to drop.
MediaBufferPool::MediaBufferPool(unsigned long count, unsigned long media_size,
                                 MediaBufferPoolStatistic* statistic)
    : StatisticContainer(statistic) {
    // A pool without buffers, or sizes beyond the address space, are requests that no block can
    // satisfy: they fail as a failed allocation does, and the caller reports it.
    std::uint64_t header_and_media = 0;
    if (count == 0 ||
        __builtin_add_overflow(media_size, MEDIA_BUFFER_HEADER_SIZE, &header_and_media) ||
        !round_up(header_and_media, SLOT_ALIGNMENT, m_slot_size) ||
        __builtin_mul_overflow(m_slot_size, count, &m_block_size) ||
        __builtin_add_overflow(m_block_size, SLOT_ALIGNMENT, &m_block_size)) {
        throw std::bad_alloc();
    }
    // Throws std::bad_alloc itself when the memory is not there. Zeroed, so that every page is
    // touched now: the recorder's resident memory is all there at start and stays flat, and a
    // host that cannot back the pool fails at start rather than in the middle of calls.
    m_block.reset(new std::uint8_t[m_block_size]());

    const auto address = reinterpret_cast<std::uintptr_t>(m_block.get());
    std::uint64_t aligned = 0;
    if (!round_up(address, SLOT_ALIGNMENT, aligned) ||
        m_block_size < aligned - address + m_slot_size) {
        QM_LOG_ERROR("MEDIA_BUFFER_POOL: failed to align allocated memory");
        throw std::bad_alloc();
    }
    const std::uint64_t gap = aligned - address;
    // The 128 spare bytes are there for the alignment gap. Only a block that comes aligned
    // already leaves them whole, and with the smallest slot (128 bytes) they would then hold one
    // buffer more than was asked for; capped, the pool has `count` buffers wherever the block lies.
    const std::uint64_t usable = std::min<std::uint64_t>(m_block_size - gap, m_slot_size * count);
    m_free = std::make_unique<FreeList>(usable / m_slot_size);
    m_stash = std::make_unique<MediaBuffer*[]>(m_free->capacity());

    m_first_slot = m_block.get() + gap;
    std::uint8_t* slot = m_first_slot;
    for (std::uint64_t remainder = usable; remainder >= m_slot_size; remainder -= m_slot_size) {
        if (m_free->size() == m_free->capacity()) {
            QM_LOG_ERROR(
                "MEDIA_BUFFER_POOL: possibly buffers number calculation error, queue is full");
            throw std::bad_alloc();
        }
        auto* buffer = new (slot) MediaBuffer{slot + MEDIA_BUFFER_HEADER_SIZE,
                                              m_slot_size - MEDIA_BUFFER_HEADER_SIZE, 0, nullptr};
        // Cannot fail: the ring was found not full just above.
        static_cast<void>(m_free->push(buffer));
        // Slots are multiples of 128 bytes, so the end of one is already the aligned start of
        // the next.
        slot += m_slot_size;
    }
    if (m_free->size() != m_free->capacity()) {
        QM_LOG_ERROR("MEDIA_BUFFER_POOL: buffers number inconsistency: created ("
                     << m_free->size() << "), calculated (" << m_free->capacity() << ")");
        throw std::bad_alloc();
    }

    QM_LOG_SYSTEM("MEDIA_BUFFER_POOL: allocated ("
                  << capacity() << ") buffers of (" << m_slot_size << ") bytes each including ("
                  << m_slot_size - MEDIA_BUFFER_HEADER_SIZE << ") bytes of media part");
    update_elements();
}

// Every header is destroyed before the block goes, and with it the session reference it holds.
// A release leaves `session` in place (the next fill overwrites it), so after a normal stop the
// buffers that carried the last bytes of ended legs still keep those sessions alive. Freeing the
// block without destroying the headers would lose those counted references, and the sessions
// (with their paths and call ids) would never be freed. Dropping them here is balanced: each
// reference a header holds was taken when a session was stored into it, and only the next store
// into the same header, or this, drops it. The headers of buffers still out of the pool are
// destroyed too (a stale reference from an earlier fill is dropped all the same): their
// memory goes with the block, and nobody may touch them after the pool. The free list needs no
// draining first: it holds plain pointers, and its array is freed with it.
MediaBufferPool::~MediaBufferPool() {
    for (std::uint64_t i = 0; i < capacity(); ++i) {
        std::launder(reinterpret_cast<MediaBuffer*>(m_first_slot + i * m_slot_size))
            ->~MediaBuffer();
    }
}

MediaBuffer* MediaBufferPool::acquire() {
    if (const std::uint64_t stashed = m_stashed.load(std::memory_order_relaxed); stashed != 0) {
        MediaBuffer* given_back = m_stash[stashed - 1];
        m_stashed.store(stashed - 1, std::memory_order_relaxed);
        update_elements();
        return given_back;
    }
    MediaBuffer* buffer = nullptr;
    // try_pop leaves a null pointer in the ring slot that it emptied.
    if (m_free->try_pop(buffer) && buffer != nullptr) {
        update_elements();
        return buffer;
    }
    ++statistic().buffer_pool_acquire_errors;
    update_elements();
    return nullptr;
}

bool MediaBufferPool::release(MediaBuffer* buffer) {
    assert(buffer != nullptr);
    buffer->size = 0;
    // The push publishes the buffer, `size` included, to the session thread's next acquire.
    if (!m_free->push(buffer)) {
        ++statistic().buffer_pool_release_errors;
        log_release_error();
        return false;
    }
    update_elements();
    return true;
}

bool MediaBufferPool::give_back(MediaBuffer* buffer) {
    assert(buffer != nullptr);
    buffer->size = 0;
    const std::uint64_t stashed = m_stashed.load(std::memory_order_relaxed);
    // The stash has room for every buffer, so only a buffer given back twice can fill it up.
    if (stashed == capacity()) {
        log_release_error();
        return false;
    }
    m_stash[stashed] = buffer;
    m_stashed.store(stashed + 1, std::memory_order_relaxed);
    update_elements();
    return true;
}

void MediaBufferPool::log_release_error() {
    QM_LOG_ERROR(
        "MEDIA_BUFFER_POOL: unexpected buffer release error, this must not happen - ask a "
        "developer to check the logic");
    update_elements();
}

void MediaBufferPool::update_elements() {
    statistic().buffer_pool_elements = free_count();
}

}  // namespace qm::writer
