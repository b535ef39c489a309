#include "writer/media_buffer_pool.hpp"

#include <algorithm>
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

[[noreturn]] void fail(const char* message) {
    QM_LOG_ERROR(message);
    throw std::bad_alloc();
}

}  // namespace

MediaBufferPool::MediaBufferPool(unsigned long count, unsigned long media_size,
                                 MediaBufferPoolStatistic& statistic)
    : StatisticContainer(&statistic) {
    // A pool without buffers, or one whose sizes overflow, cannot be laid out at all.
    std::uint64_t slot_content = 0;
    if (count == 0 ||
        __builtin_add_overflow(media_size, MEDIA_BUFFER_HEADER_SIZE, &slot_content) ||
        !round_up(slot_content, SLOT_ALIGNMENT, m_slot_size) ||
        __builtin_mul_overflow(m_slot_size, count, &m_block_size) ||
        __builtin_add_overflow(m_block_size, SLOT_ALIGNMENT, &m_block_size)) {
        throw std::bad_alloc();
    }
    m_block.reset(new std::uint8_t[m_block_size]);
    const auto address = reinterpret_cast<std::uintptr_t>(m_block.get());
    std::uint64_t aligned = 0;
    if (!round_up(address, SLOT_ALIGNMENT, aligned) ||
        m_block_size < aligned - address + m_slot_size) {
        fail("MEDIA_BUFFER_POOL: failed to align allocated memory");
    }
    // The spare bytes are there for the alignment gap; when the block comes aligned already and a
    // slot is no larger than they are, they would hold one buffer more than was asked for.
    const std::uint64_t usable =
        std::min<std::uint64_t>(m_block_size - (aligned - address), m_slot_size * count);
    m_free = std::make_unique<FreeList>(usable / m_slot_size);
    lay_out(m_block.get() + (aligned - address), usable);
    QM_LOG_SYSTEM("MEDIA_BUFFER_POOL: allocated ("
                  << count << ") buffers of (" << m_slot_size << ") bytes each including ("
                  << m_slot_size - MEDIA_BUFFER_HEADER_SIZE << ") bytes of media part");
    update_elements();
}

// The headers are destroyed as well as the memory they sit in, so that the sessions they still
// name are released: a buffer keeps its session after a release until it is filled again.
MediaBufferPool::~MediaBufferPool() {
    for (std::uint64_t i = 0; i < m_laid_out; ++i) {
        reinterpret_cast<MediaBuffer*>(m_first_slot + i * m_slot_size)->~MediaBuffer();
    }
}

void MediaBufferPool::lay_out(std::uint8_t* first, std::uint64_t usable) {
    m_first_slot = first;
    for (std::uint8_t* slot = first; usable >= m_slot_size; slot += m_slot_size) {
        if (m_free->size() == m_free->capacity()) {
            fail("MEDIA_BUFFER_POOL: possibly buffers number calculation error, queue is full");
        }
        auto* buffer = new (slot) MediaBuffer{slot + MEDIA_BUFFER_HEADER_SIZE,
                                              m_slot_size - MEDIA_BUFFER_HEADER_SIZE, 0, nullptr};
        ++m_laid_out;
        static_cast<void>(m_free->push(buffer));
        usable -= m_slot_size;
    }
    if (m_free->size() != m_free->capacity()) {
        QM_LOG_ERROR("MEDIA_BUFFER_POOL: buffers number inconsistency: created ("
                     << m_free->size() << "), calculated (" << m_free->capacity() << ")");
        throw std::bad_alloc();
    }
}

MediaBuffer* MediaBufferPool::acquire() {
    MediaBuffer* buffer = nullptr;
    if (!m_free->try_pop(buffer) || buffer == nullptr) {
        ++statistic().buffer_pool_acquire_errors;
        update_elements();
        return nullptr;
    }
    update_elements();
    return buffer;
}

bool MediaBufferPool::release(MediaBuffer* buffer) {
    buffer->size = 0;
    if (!m_free->push(buffer)) {
        ++statistic().buffer_pool_release_errors;
        QM_LOG_ERROR(
            "MEDIA_BUFFER_POOL: unexpected buffer release error, this must not happen - ask a "
            "developer to check the logic");
        update_elements();
        return false;
    }
    update_elements();
    return true;
}

void MediaBufferPool::update_elements() {
    statistic().buffer_pool_elements = m_free->size();
}

}  // namespace qm::writer
