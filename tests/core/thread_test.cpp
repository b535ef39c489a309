#include "core/thread.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "log_capture.hpp"

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

// Records the signal mask and the name its thread runs with.
class MaskProbe : public Thread {
public:
    void run() override {
        pthread_sigmask(SIG_BLOCK, nullptr, &m_mask);
        pthread_getname_np(pthread_self(), m_name, sizeof m_name);
        // Release: the mask is written before the flag says so.
        m_recorded.store(true, std::memory_order_release);
    }

    bool recorded() const { return m_recorded.load(std::memory_order_acquire); }
    const sigset_t& mask() const { return m_mask; }
    std::string name() const { return m_name; }

private:
    sigset_t m_mask{};
    char m_name[16]{};
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

TEST(ThreadTest, RunsUnderItsNameOrTheDefaultOne) {
    MaskProbe unnamed;
    MaskProbe named;
    named.set_name("qm-probe");

    ASSERT_EQ(unnamed.start(), 0);
    ASSERT_EQ(named.start(), 0);
    ASSERT_EQ(unnamed.stop(), 0);
    ASSERT_EQ(named.stop(), 0);

    ASSERT_TRUE(unnamed.recorded());
    ASSERT_TRUE(named.recorded());
    EXPECT_EQ(unnamed.name(), "qm-worker");
    EXPECT_EQ(named.name(), "qm-probe");
}

TEST(ThreadTest, StartAndStopLinesNameTheComponentTheCallerAndTheOutcome) {
    test::LogCapture capture;
    const std::string tid = std::to_string(::gettid());

    const int first = __LINE__ + 1;
    QM_LOG_THREAD_STARTED("PROBE");
    EXPECT_EQ(QM_LOG_THREAD_STOPPED("PROBE", 0), 0);
    EXPECT_EQ(QM_LOG_THREAD_STOPPED("PROBE", 22), 22);

    const auto place = [&](int offset) {
        return "| thread_test.cpp:" + std::to_string(first + offset) + " | PROBE: thread [";
    };
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "SYSTEM  " + place(0) + tid + "] started",
                                   "SYSTEM  " + place(1) + tid + "] stopped",
                                   "WARNING " + place(2) + tid + "] stopped with error (22)"}));
}

}  // namespace
}  // namespace qm
