#include "core/thread.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <vector>

namespace qm {
namespace {

// The standard signals a thread can block (SIGKILL and SIGSTOP cannot be). Signals 32 and 33 are
// the C library's own, which it never lets a mask hold.
std::vector<int> blockable_signals() {
    std::vector<int> signals;
    for (int signal = 1; signal <= SIGSYS; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP) {
            signals.push_back(signal);
        }
    }
    return signals;
}

// Records the signal mask its thread runs with.
class MaskProbe : public Thread {
public:
    void run() override {
        pthread_sigmask(SIG_BLOCK, nullptr, &m_mask);
        // Release: the mask is written before the flag says so.
        m_recorded.store(true, std::memory_order_release);
    }

    bool recorded() const { return m_recorded.load(std::memory_order_acquire); }
    const sigset_t& mask() const { return m_mask; }

private:
    sigset_t m_mask{};
    std::atomic<bool> m_recorded{false};
};

// Runs `test` with the calling thread's signal mask set to `mask`, then puts the old one back.
template <typename Test>
void with_mask(const sigset_t& mask, Test test) {
    sigset_t previous;
    pthread_sigmask(SIG_SETMASK, &mask, &previous);
    test();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

TEST(ThreadTest, StartsWithEverySignalBlockedWhateverTheCreatorBlocks) {
    sigset_t none;
    sigemptyset(&none);
    MaskProbe probe;

    with_mask(none, [&] {
        ASSERT_EQ(probe.start(), 0);
        ASSERT_EQ(probe.stop(), 0);
    });

    ASSERT_TRUE(probe.recorded());
    for (const int signal : blockable_signals()) {
        EXPECT_EQ(sigismember(&probe.mask(), signal), 1) << "signal " << signal;
    }
}

TEST(ThreadTest, StartLeavesTheCreatorsMaskAsItWas) {
    sigset_t only_user1;
    sigemptyset(&only_user1);
    sigaddset(&only_user1, SIGUSR1);
    sigset_t after;
    MaskProbe probe;

    with_mask(only_user1, [&] {
        ASSERT_EQ(probe.start(), 0);
        pthread_sigmask(SIG_BLOCK, nullptr, &after);
        ASSERT_EQ(probe.stop(), 0);
    });

    for (const int signal : blockable_signals()) {
        EXPECT_EQ(sigismember(&after, signal), signal == SIGUSR1 ? 1 : 0) << "signal " << signal;
    }
}

}  // namespace
}  // namespace qm
