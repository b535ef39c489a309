#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "core/queue.hpp"
#include "core/queue_reader_statistic.hpp"
#include "core/statistic_container.hpp"
#include "core/thread.hpp"

namespace qm {

// A thread that takes the elements of its own queue one by one and hands each to `on_queue_read`.
// N is the queue's capacity (0: given to the constructor); WaitNs is the longest sleep waiting
// for an element, after which `on_queue_read` gets an empty value (a default T: null pointer,
// empty rc_ptr) that subclasses use as a timer tick. S is the statistic record, which a subclass
// may extend with counters of its own.
//
// The plain reader drains: after `stop`, it goes on until its queue is empty.
//
// Threads: one producer thread calls `push` (it writes `passed_elements` and
// `dropped_elements`); the reader thread runs `run` and every `on_queue_read` (it writes
// `elements`); the owner calls `start`, `stop` and the destructor.
// REQUIRES for draining: every `push` happens before `stop` is called.
template <typename T, std::size_t N, std::uint64_t WaitNs, typename S = QueueReaderStatistic>
class QueueReader : public StatisticContainer<S>, public Thread {
public:
    static_assert(std::is_base_of_v<QueueReaderStatistic, S>,
                  "a reader's record begins with the queue counters");

    using Value = T;
    using Statistic = S;
    using QueueType = Queue<T, N, true>;

    // Counts into `statistic`, or into an owned record when it is null.
    explicit QueueReader(S* statistic = nullptr) requires(N != 0)
        : StatisticContainer<S>(statistic) {}

    // REQUIRES: capacity > 0.
    explicit QueueReader(std::uint64_t capacity, S* statistic = nullptr) requires(N == 0)
        : StatisticContainer<S>(statistic), m_queue(capacity) {}

    // Queues `value` for the reader thread; counts it as passed, or as dropped when the queue is
    // full (then `value` is released here). Never blocks.
    // REQUIRES: called only by the producer thread.
    [[nodiscard]] virtual bool push(T value) { return push_counted(std::move(value), true); }

    // The same without waking a sleeping reader: for a batch, followed by one `wake_reader`.
    [[nodiscard]] bool push_quietly(T value) { return push_counted(std::move(value), false); }

    // Wakes the reader if it sleeps, after `push_quietly`.
    void wake_reader() { m_queue.wake(); }

    void run() override {
        while (true) {
            // The flag is read before the queue, so that an element pushed before `stop` is seen.
            const bool running = is_running();
            T value;
            if (m_queue.try_pop(value)) {
                on_queue_read(std::move(value));
            } else if (!running) {
                break;
            } else if (!wait_for_element()) {
                on_queue_read(T());
            }
            update_elements();
        }
        update_elements();
    }

    // Also wakes the thread if it sleeps on an empty queue, so a stop does not wait out WaitNs.
    [[nodiscard]] int stop() override {
        request_stop();
        m_queue.wake();
        return join();
    }

    // Called on the reader thread for every element taken, and with an empty value whenever one
    // wait of WaitNs ends without an element.
    virtual void on_queue_read(T value) = 0;

    QueueType& queue() { return m_queue; }
    const QueueType& queue() const { return m_queue; }

protected:
    // Sleeps until an element arrives or a stop is requested, for at most WaitNs. Returns false
    // when the wait timed out.
    bool wait_for_element() {
        return m_queue.wait(WaitNs, [this] { return !is_running(); });
    }

    void update_elements() { this->statistic().elements = m_queue.size(); }

private:
    [[nodiscard]] bool push_counted(T value, bool wake) {
        if (!m_queue.push(std::move(value), wake)) {
            ++this->statistic().dropped_elements;
            return false;
        }
        ++this->statistic().passed_elements;
        return true;
    }

    QueueType m_queue;
};

}  // namespace qm
