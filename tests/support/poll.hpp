#pragma once

#include <chrono>
#include <thread>

namespace qm::test {

// Calls `condition` until it returns true or `timeout` passes, sleeping `interval` between calls;
// the result is the last answer, so a condition that turns true at the deadline still counts.
template <typename Condition>
bool poll_until(Condition condition, std::chrono::milliseconds timeout,
                std::chrono::milliseconds interval = std::chrono::milliseconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(interval);
    }
    return true;
}

}  // namespace qm::test
