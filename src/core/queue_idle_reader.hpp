#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "core/queue_idle_reader_statistic.hpp"
#include "core/queue_reader.hpp"

namespace qm {

// A queue reader with an idle hook. Every pass first calls `on_queue_try`; a pass that finds the
// queue empty calls `on_queue_idle`, and only when that reports no work does the thread sleep (at
// most WaitNs, then `on_queue_read` gets an empty value as a tick). It counts empty passes in
// `idle_checks` and those whose hook did work in `idle_hits`.
//
// Unlike the plain reader it does not drain: it stops after the pass in progress, and elements
// still queued stay there until the reader (and with it the queue) is destroyed.
//
// Threads: as QueueReader; the hooks run on the reader thread, which also writes `idle_checks`
// and `idle_hits`.
template <typename T, std::size_t N, std::uint64_t WaitNs, typename S = QueueIdleReaderStatistic>
class QueueIdleReader : public QueueReader<T, N, WaitNs, S> {
public:
    static_assert(std::is_base_of_v<QueueIdleReaderStatistic, S>,
                  "an idle reader's record begins with the idle reader counters");

    using QueueReader<T, N, WaitNs, S>::QueueReader;

    void run() override {
        S& statistic = this->statistic();
        while (this->is_running()) {
            on_queue_try();
            T value;
            if (this->queue().try_pop(value)) {
                this->on_queue_read(std::move(value));
            } else {
                ++statistic.idle_checks;
                if (on_queue_idle()) {
                    ++statistic.idle_hits;
                } else {
                    read_after_wait();
                }
            }
            this->update_elements();
        }
        this->update_elements();
    }

    // Called on the reader thread when a pass finds the queue empty; true means that it did some
    // work and the reader must not sleep.
    virtual bool on_queue_idle() = 0;

    // Called on the reader thread at the top of every pass, before the queue is looked at.
    virtual void on_queue_try() = 0;

private:
    // Sleeps for an element and reads it, or reads the empty value when the wait timed out. A
    // wait ended by `stop` reads nothing.
    void read_after_wait() {
        const bool woken = this->wait_for_element();
        T value;
        if (this->queue().try_pop(value)) {
            this->on_queue_read(std::move(value));
        } else if (!woken) {
            this->on_queue_read(T());
        }
    }
};

}  // namespace qm
