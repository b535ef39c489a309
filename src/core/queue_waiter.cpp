#include "core/queue_waiter.hpp"

#include <time.h>

namespace qm {

namespace {

constexpr std::uint64_t NANOSECONDS_PER_SECOND = 1000000000;

}  // namespace

// glibc's initialisers cannot fail for a default mutex and a monotonic-clock condition variable,
// so their results are not examined.
QueueWaiter::QueueWaiter() {
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

QueueWaiter::~QueueWaiter() {
    pthread_cond_destroy(&m_condition);
    pthread_mutex_destroy(&m_mutex);
}

timespec QueueWaiter::deadline_after(std::uint64_t wait_ns) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const std::uint64_t nanoseconds = static_cast<std::uint64_t>(deadline.tv_nsec) + wait_ns;
    deadline.tv_sec += static_cast<time_t>(nanoseconds / NANOSECONDS_PER_SECOND);
    deadline.tv_nsec = static_cast<long>(nanoseconds % NANOSECONDS_PER_SECOND);
    return deadline;
}

void QueueWaiter::broadcast() {
    pthread_mutex_lock(&m_mutex);
    pthread_cond_broadcast(&m_condition);
    pthread_mutex_unlock(&m_mutex);
}

}  // namespace qm
