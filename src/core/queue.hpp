#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

#include "core/queue_waiter.hpp"

namespace qm {

// A bounded single-producer/single-consumer ring of N elements, allocated once at construction;
// with N = 0 the capacity is given to the constructor instead (see DynamicQueue below).
//
// `tail` counts the elements ever pushed and `head` the elements ever taken; both only grow (64
// bits do not wrap in practice), the element count is tail - head, and the slot of counter value c
// is c modulo the capacity. Neither side takes a lock: each side writes only its own counter and
// publishes it with a release store; the other side reads it with acquire, and only when its
// cached copy says that the ring is full (producer) or empty (consumer).
//
// A Waitable queue also carries a QueueWaiter, so that its consumer can sleep until an element
// arrives; a queue that is not Waitable has no mutex, condition variable or waiting flag at all
// (the media buffer pool uses one as a lock-free free list).
//
// Threads: exactly one producer thread calls `push`, exactly one consumer thread calls `try_pop`
// and `wait`; the two may be the same thread. `size`, `empty`, `head`, `tail` and `capacity` may
// be called from any thread; read by a third thread, `size` is a snapshot.
// Destroying the queue destroys every slot, so elements still queued are released then.
template <typename T, std::size_t N, bool Waitable>
class Queue {
public:
    static_assert(std::is_default_constructible_v<T>, "an empty slot holds a default value");

    Queue() requires(N != 0) : m_slots(new T[N]()), m_capacity(N) {}

    // REQUIRES: capacity > 0.
    explicit Queue(std::uint64_t capacity) requires(N == 0)
        : m_slots(new T[capacity]()), m_capacity(capacity) {}

    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    // Stores `value` behind the last element and, for a Waitable queue, wakes the consumer if it
    // waits, unless `wake_consumer` is false: a producer that queues a batch wakes it once, with
    // `wake`, after the last element. Returns false, and drops `value`, when the queue is full.
    // REQUIRES: called only by the producer thread.
    [[nodiscard]] bool push(T value, bool wake_consumer = true) {
        // Relaxed: only this thread writes tail.
        const std::uint64_t tail = m_producer.tail.load(std::memory_order_relaxed);
        if (tail - m_producer.cached_head == capacity()) {
            // Acquire pairs with the consumer's release of head: the consumer has finished with
            // the slot (moved the element out) before this thread overwrites it.
            m_producer.cached_head = m_consumer.head.load(std::memory_order_acquire);
            if (tail - m_producer.cached_head == capacity()) {
                return false;
            }
        }
        m_slots[tail % capacity()] = std::move(value);
        // Release: the element stored above is visible to the consumer that sees the new tail.
        m_producer.tail.store(tail + 1, std::memory_order_release);
        if constexpr (Waitable) {
            if (wake_consumer) {
                m_waiter.wake_if_waiting();
            }
        }
        return true;
    }

    // Moves the first element into `out` and leaves an empty value in its slot, so that the
    // queue's own reference (for an rc_ptr) goes at once. Returns false when the queue is empty.
    // REQUIRES: called only by the consumer thread.
    [[nodiscard]] bool try_pop(T& out) {
        // Relaxed: only this thread writes head.
        const std::uint64_t head = m_consumer.head.load(std::memory_order_relaxed);
        if (head == m_consumer.cached_tail) {
            // Acquire pairs with the producer's release of tail: the element is fully stored.
            m_consumer.cached_tail = m_producer.tail.load(std::memory_order_acquire);
            if (head == m_consumer.cached_tail) {
                return false;
            }
        }
        out = std::exchange(m_slots[head % capacity()], T());
        // Release: the slot is emptied before the producer, seeing the new head, reuses it.
        m_consumer.head.store(head + 1, std::memory_order_release);
        return true;
    }

    // Sleeps until the queue has an element or `stop_requested()` returns true, for at most
    // `wait_ns` nanoseconds. Returns false when the wait timed out.
    // REQUIRES: called only by the consumer thread.
    template <typename StopRequested>
    bool wait(std::uint64_t wait_ns, StopRequested stop_requested) requires Waitable {
        return m_waiter.wait([&] { return !empty() || stop_requested(); }, wait_ns);
    }

    // Wakes the consumer from `wait` after the caller has made `stop_requested()` true, or after
    // a batch pushed without waking it.
    void wake() requires Waitable { m_waiter.wake_if_waiting(); }

    // Elements ever pushed and ever taken.
    std::uint64_t tail() const { return m_producer.tail.load(std::memory_order_acquire); }
    std::uint64_t head() const { return m_consumer.head.load(std::memory_order_acquire); }

    // tail - head. Head is read first (acquire keeps the tail load behind it), so a concurrent
    // reading never goes negative; it is capped at the capacity for the same reason on the other
    // side.
    std::uint64_t size() const {
        const std::uint64_t head = this->head();
        return std::min<std::uint64_t>(tail() - head, capacity());
    }
    bool empty() const { return size() == 0; }

    std::uint64_t capacity() const {
        if constexpr (N != 0) {
            return N;
        } else {
            return m_capacity;
        }
    }

private:
    // 128 bytes: two 64-byte lines, because the adjacent-line prefetcher moves lines in pairs.
    static constexpr std::size_t LINE = 128;

    // Written only by the producer; `tail` is read by the consumer.
    struct alignas(LINE) ProducerSide {
        std::atomic<std::uint64_t> tail{0};
        // The producer's last reading of head.
        std::uint64_t cached_head = 0;
    };
    // Written only by the consumer; `head` is read by the producer.
    struct alignas(LINE) ConsumerSide {
        std::atomic<std::uint64_t> head{0};
        // The consumer's last reading of tail.
        std::uint64_t cached_tail = 0;
    };
    static_assert(sizeof(ProducerSide) == LINE && alignof(ProducerSide) == LINE);
    static_assert(sizeof(ConsumerSide) == LINE && alignof(ConsumerSide) == LINE);

    struct NoWaiter {};

    // Shared, read-mostly line: the slot array, the capacity and the waiter.
    std::unique_ptr<T[]> m_slots;
    const std::uint64_t m_capacity;
    [[no_unique_address]] std::conditional_t<Waitable, QueueWaiter, NoWaiter> m_waiter;
    // Each counter on a line of its own, apart from the array pointer and from each other, so
    // that producer and consumer never write the same line.
    ProducerSide m_producer;
    ConsumerSide m_consumer;
};

// A Queue whose capacity is given at construction.
template <typename T, bool Waitable>
using DynamicQueue = Queue<T, 0, Waitable>;

}  // namespace qm
