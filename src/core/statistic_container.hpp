#pragma once

#include <memory>

namespace qm {

// Gives a component its statistic record S. Normally the service owns the record and passes it
// in, so that it can later hand the same record to the statistic service; a component built
// without one (in tests, or when nobody reports it) owns a record of its own, released with it.
//
// Threads: the record's counters are written by the component's threads and read by the
// statistics thread (see S); the pointer itself is set at construction and never changes.
template <typename S>
class StatisticContainer {
public:
    // Uses `external` when it is not null, else an owned record.
    // REQUIRES: `external`, if given, outlives this container.
    explicit StatisticContainer(S* external = nullptr)
        : m_owned(external == nullptr ? std::make_unique<S>() : nullptr),
          m_statistic(external == nullptr ? m_owned.get() : external) {}
    virtual ~StatisticContainer() = default;

    StatisticContainer(const StatisticContainer&) = delete;
    StatisticContainer& operator=(const StatisticContainer&) = delete;

    S& statistic() { return *m_statistic; }
    const S& statistic() const { return *m_statistic; }

private:
    std::unique_ptr<S> m_owned;
    S* m_statistic;
};

}  // namespace qm
