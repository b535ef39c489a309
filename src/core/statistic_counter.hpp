#pragma once

#include <atomic>
#include <cstdint>

namespace qm {

// One statistic counter: written by exactly one thread, read at any moment by the statistics
// thread. Relaxed order is enough because a report only shows the value and nothing else is
// published through it. Increments are a relaxed load and store rather than a read-modify-write:
// with a single writer no update can be lost, and on x86-64 it stays a plain add to memory
// instead of a locked instruction.
class StatisticCounter {
public:
    StatisticCounter() = default;
    StatisticCounter(const StatisticCounter&) = delete;
    StatisticCounter& operator=(const StatisticCounter&) = delete;

    std::uint64_t load() const { return m_value.load(std::memory_order_relaxed); }
    operator std::uint64_t() const { return load(); }  // NOLINT(google-explicit-constructor)

    void store(std::uint64_t value) { m_value.store(value, std::memory_order_relaxed); }
    StatisticCounter& operator=(std::uint64_t value) {
        store(value);
        return *this;
    }

    // REQUIRES: called only by the counter's one writing thread.
    StatisticCounter& operator+=(std::uint64_t n) {
        store(load() + n);
        return *this;
    }
    StatisticCounter& operator-=(std::uint64_t n) {
        store(load() - n);
        return *this;
    }
    StatisticCounter& operator++() { return *this += 1; }
    void operator++(int) { *this += 1; }

private:
    std::atomic<std::uint64_t> m_value{0};
};

}  // namespace qm
