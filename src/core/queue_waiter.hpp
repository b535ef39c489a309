#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace qm {

// Lets the one consumer of a queue sleep until the queue has something for it, for at most a
// given time; used only by queues that can be waited on. The data path never takes the mutex:
// the producer looks at the waiting flag after each push and locks only to wake a consumer that
// has announced that it waits.
//
// The condition variable runs on CLOCK_MONOTONIC, so a change of the wall clock neither shortens
// nor lengthens a wait. (std::condition_variable cannot choose its clock, hence pthread.)
//
// Threads: `wait` is called only by the consumer thread; `wake_if_waiting` by the producer, or by
// the thread that stops the consumer, after it has changed what `ready` looks at.
class QueueWaiter {
public:
    QueueWaiter();
    ~QueueWaiter();

    QueueWaiter(const QueueWaiter&) = delete;
    QueueWaiter& operator=(const QueueWaiter&) = delete;

    // Sleeps until `ready()` returns true, or until `wait_ns` nanoseconds have passed on the
    // monotonic clock. Returns false when the wait timed out.
    template <typename Ready>
    bool wait(Ready ready, std::uint64_t wait_ns) {
        const timespec deadline = deadline_after(wait_ns);
        pthread_mutex_lock(&m_mutex);
        // Relaxed store, then a seq_cst fence that pairs with the one in `wake_if_waiting`: either
        // the waker sees the flag set, or `ready()` below sees what the waker published. Without
        // it a push could slip between the check and the sleep and wait out a whole period.
        m_waiting.store(true, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_seq_cst);
        int result = 0;
        while (!ready() && result == 0) {
            result = pthread_cond_timedwait(&m_condition, &m_mutex, &deadline);
        }
        // Relaxed: a waker that still sees the flag set only broadcasts to nobody.
        m_waiting.store(false, std::memory_order_relaxed);
        pthread_mutex_unlock(&m_mutex);
        return result == 0;
    }

    // Wakes the consumer if it is waiting, or about to wait.
    // REQUIRES: whatever makes the consumer's `ready()` true is already stored.
    void wake_if_waiting() {
        std::atomic_thread_fence(std::memory_order_seq_cst);
        if (m_waiting.load(std::memory_order_relaxed)) {
            broadcast();
        }
    }

private:
    static timespec deadline_after(std::uint64_t wait_ns);
    void broadcast();

    pthread_mutex_t m_mutex;
    pthread_cond_t m_condition;
    // Set by the consumer while it is inside `wait`; read by the producer after every push.
    std::atomic<bool> m_waiting{false};
};

}  // namespace qm
