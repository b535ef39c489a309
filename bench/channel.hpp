#pragma once

#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "core/queue.hpp"

namespace qm::bench {

// The two ways of handing elements from one thread to another that the benchmarks compare: the
// lock-free ring the recorder uses, and a mutex-guarded std::deque. Both offer the same blocking
// `send` and `receive` (spinning with a yield while full or empty), so that one benchmark body
// serves both.
template <typename T>
class RingChannel {
public:
    void send(T value) {
        while (!m_queue.push(value)) {
            std::this_thread::yield();
        }
    }
    T receive() {
        T value;
        while (!m_queue.try_pop(value)) {
            std::this_thread::yield();
        }
        return value;
    }

private:
    Queue<T, 100000, true> m_queue;
};

template <typename T>
class LockedDequeChannel {
public:
    void send(T value) {
        std::lock_guard lock(m_mutex);
        m_queue.push_back(std::move(value));
    }
    T receive() {
        while (true) {
            {
                std::lock_guard lock(m_mutex);
                if (!m_queue.empty()) {
                    T value = std::move(m_queue.front());
                    m_queue.pop_front();
                    return value;
                }
            }
            std::this_thread::yield();
        }
    }

private:
    std::mutex m_mutex;
    std::deque<T> m_queue;
};

}  // namespace qm::bench
