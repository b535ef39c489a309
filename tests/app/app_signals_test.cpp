#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <thread>

#include "app/app_service.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "test_service.hpp"

namespace qm::app::test {
namespace {

using qm::test::LogCapture;

class SignalsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(ServiceBase::signals_subscribe()); }
    void TearDown() override { restore_default_signals(); }

    static std::string received(int signal) {
        return "SERVICE: signal " + std::to_string(signal) + " has been received";
    }

    static bool any_flag_set() {
        return ServiceBase::m_signal_stop.load() != 0 || ServiceBase::m_signal_update.load() ||
               ServiceBase::m_signal_user1.load() || ServiceBase::m_signal_user2.load();
    }

    LogCapture capture;
};

TEST_F(SignalsTest, SubscriptionClearsTheFlags) {
    ServiceBase::m_signal_stop = 1;
    ServiceBase::m_signal_update = true;
    ServiceBase::m_signal_user1 = true;
    ServiceBase::m_signal_user2 = true;

    ASSERT_TRUE(ServiceBase::signals_subscribe());

    EXPECT_FALSE(any_flag_set());
}

TEST_F(SignalsTest, HandlersAreInstalledWithoutRestart) {
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) {
        struct sigaction installed {};
        ASSERT_EQ(::sigaction(signal, nullptr, &installed), 0);
        EXPECT_EQ(installed.sa_sigaction, &ServiceBase::signals_handler) << signal;
        EXPECT_NE(installed.sa_flags & SA_SIGINFO, 0) << signal;
        EXPECT_EQ(installed.sa_flags & SA_RESTART, 0) << signal;
        for (int other = 1; other < NSIG; ++other) {
            EXPECT_EQ(sigismember(&installed.sa_mask, other), 0) << signal << " masks " << other;
        }
    }
}

TEST_F(SignalsTest, HangupRequestsAnUpdateAndDoesNotStop) {
    ASSERT_EQ(::raise(SIGHUP), 0);
    ServiceBase::log_pending_signals();

    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{received(1), "SERVICE: update has been requested"}));
    EXPECT_EQ(capture.texts(log::Level::SYSTEM).size(), 2u);
    EXPECT_TRUE(ServiceBase::m_signal_update.load());
    EXPECT_EQ(ServiceBase::m_signal_stop.load(), 0);
}

TEST_F(SignalsTest, UserSignalsRequestUserActionsAndDoNotStop) {
    ASSERT_EQ(::raise(SIGUSR1), 0);
    ServiceBase::log_pending_signals();
    EXPECT_TRUE(ServiceBase::m_signal_user1.load());
    EXPECT_FALSE(ServiceBase::m_signal_user2.load());

    ASSERT_EQ(::raise(SIGUSR2), 0);
    ServiceBase::log_pending_signals();
    EXPECT_TRUE(ServiceBase::m_signal_user2.load());

    EXPECT_EQ(capture.texts(), (std::vector<std::string>{
                                   received(10), "SERVICE: user action #1 has been requested",
                                   received(12), "SERVICE: user action #2 has been requested"}));
    EXPECT_EQ(ServiceBase::m_signal_stop.load(), 0);
    EXPECT_FALSE(ServiceBase::m_signal_update.load());
}

TEST_F(SignalsTest, InterruptQuitAndTerminateRequestAStop) {
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM}) {
        ASSERT_TRUE(ServiceBase::signals_subscribe());
        capture.clear();

        ASSERT_EQ(::raise(signal), 0);
        ServiceBase::log_pending_signals();

        EXPECT_EQ(capture.texts(),
                  (std::vector<std::string>{received(signal),
                                            "SERVICE: application stop has been requested"}));
        EXPECT_EQ(ServiceBase::m_signal_stop.load(), 1) << signal;
        EXPECT_FALSE(ServiceBase::m_signal_update.load());
    }
}

TEST_F(SignalsTest, TwoTerminatesLogTwiceAndKeepTheFlagAtOne) {
    ASSERT_EQ(::raise(SIGTERM), 0);
    ASSERT_EQ(::raise(SIGTERM), 0);
    ServiceBase::log_pending_signals();

    EXPECT_EQ(capture.count("SERVICE: signal 15 has been received"), 2u);
    EXPECT_EQ(capture.count("SERVICE: application stop has been requested"), 2u);
    EXPECT_EQ(capture.texts().size(), 4u);
    EXPECT_EQ(ServiceBase::m_signal_stop.load(), 1);
}

TEST_F(SignalsTest, BrokenPipeIsIgnored) {
    struct sigaction installed {};
    ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &installed), 0);
    EXPECT_EQ(installed.sa_handler, SIG_IGN);

    ASSERT_EQ(::raise(SIGPIPE), 0);  // still alive
    ServiceBase::log_pending_signals();

    EXPECT_TRUE(capture.texts().empty());
    EXPECT_FALSE(any_flag_set());
}

TEST_F(SignalsTest, HandlerWarnsAboutBrokenPipeWhenCalledForIt) {
    ServiceBase::signals_handler(SIGPIPE, nullptr, nullptr);
    ServiceBase::log_pending_signals();

    EXPECT_EQ(capture.texts(log::Level::SYSTEM), std::vector<std::string>{received(13)});
    EXPECT_EQ(capture.texts(log::Level::WARNING),
              std::vector<std::string>{"SERVICE: signal SIGPIPE has been ignored"});
    EXPECT_FALSE(any_flag_set());
}

TEST_F(SignalsTest, HandlerOnlyReportsOtherSignals) {
    ServiceBase::signals_handler(SIGALRM, nullptr, nullptr);
    ServiceBase::log_pending_signals();

    EXPECT_EQ(capture.texts(), std::vector<std::string>{received(14)});
    EXPECT_FALSE(any_flag_set());
}

TEST_F(SignalsTest, LinesShowTheFrameSourceFile) {
    ASSERT_EQ(::raise(SIGTERM), 0);
    ServiceBase::log_pending_signals();

    const std::vector<std::string> lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("SYSTEM  | app_service.cpp:", 0), 0u) << lines[0];
}

// The handler runs on top of whatever the thread was doing, the logger included: it must not log.
TEST_F(SignalsTest, HandlerLogsNothingUntilTheMainThreadAsksForTheLines) {
    ASSERT_EQ(::raise(SIGHUP), 0);
    ASSERT_EQ(::raise(SIGTERM), 0);

    EXPECT_TRUE(capture.texts().empty());
    EXPECT_TRUE(ServiceBase::m_signal_update.load());
    EXPECT_EQ(ServiceBase::m_signal_stop.load(), 1);

    ServiceBase::log_pending_signals();

    EXPECT_EQ(capture.texts(), (std::vector<std::string>{
                                   received(1), "SERVICE: update has been requested", received(15),
                                   "SERVICE: application stop has been requested"}));
}

TEST_F(SignalsTest, PendingLinesAreLoggedOnceAndStopLinesLast) {
    ASSERT_EQ(::raise(SIGTERM), 0);
    ASSERT_EQ(::raise(SIGUSR2), 0);
    ASSERT_EQ(::raise(SIGINT), 0);

    ServiceBase::log_pending_signals();
    ServiceBase::log_pending_signals();

    EXPECT_EQ(capture.texts(), (std::vector<std::string>{
                                   received(12), "SERVICE: user action #2 has been requested",
                                   received(2), "SERVICE: application stop has been requested",
                                   received(15), "SERVICE: application stop has been requested"}));
}

TEST_F(SignalsTest, EverySignalBetweenTwoSafePointsGetsItsLines) {
    constexpr int RAISED = 300;
    for (int i = 0; i < RAISED; ++i) {
        ASSERT_EQ(::raise(SIGUSR1), 0);
    }

    ServiceBase::log_pending_signals();

    EXPECT_EQ(capture.count(received(10)), static_cast<std::size_t>(RAISED));
    EXPECT_EQ(capture.count("SERVICE: user action #1 has been requested"),
              static_cast<std::size_t>(RAISED));
    EXPECT_EQ(capture.texts().size(), static_cast<std::size_t>(2 * RAISED));
}

TEST_F(SignalsTest, SubscriptionForgetsSignalsNotYetLogged) {
    ASSERT_EQ(::raise(SIGHUP), 0);

    ASSERT_TRUE(ServiceBase::signals_subscribe());
    ServiceBase::log_pending_signals();

    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(SignalsTest, HandlerKeepsErrnoAsItFoundIt) {
    errno = EDOM;
    ServiceBase::signals_handler(SIGUSR1, nullptr, nullptr);
    EXPECT_EQ(errno, EDOM);
}

bool readable(int fd) {
    pollfd watched{fd, POLLIN, 0};
    return ::poll(&watched, 1, 0) == 1 && (watched.revents & POLLIN) != 0;
}

TEST_F(SignalsTest, DoorbellRingsOnASignalUntilItsLinesAreLogged) {
    const int doorbell = ServiceBase::signal_doorbell();
    ASSERT_GE(doorbell, 0);
    EXPECT_FALSE(readable(doorbell));

    ASSERT_EQ(::raise(SIGUSR2), 0);
    EXPECT_TRUE(readable(doorbell));
    EXPECT_TRUE(readable(doorbell));  // looking does not empty it

    ServiceBase::log_pending_signals();
    EXPECT_FALSE(readable(doorbell));
    EXPECT_EQ(capture.count(received(12)), 1u);
}

TEST_F(SignalsTest, DoorbellIsCreatedOncePerProcess) {
    const int doorbell = ServiceBase::signal_doorbell();

    ASSERT_TRUE(ServiceBase::signals_subscribe());

    EXPECT_EQ(ServiceBase::signal_doorbell(), doorbell);
}

// A sink with a lock of its own, like the system log's: it raises a stop signal while it holds
// the lock, as a stop that interrupts the logging of a line does. A handler that logged would ask
// for the lock again on the same thread; the timed lock turns that hang into a failure.
class LockingSink {
public:
    static void write(void*, const char*, int, const log::Message& message) {
        if (!m_lock.try_lock_for(std::chrono::seconds(1))) {
            m_blocked = true;
            return;
        }
        if (message.text() == "raise SIGTERM") {
            ::raise(SIGTERM);
        }
        ++m_lines;
        m_lock.unlock();
    }

    static inline std::timed_mutex m_lock;
    static inline bool m_blocked = false;
    static inline int m_lines = 0;
};

TEST_F(SignalsTest, StopWhileTheSinkHoldsItsLockDoesNotWaitForTheLock) {
    {
        log::LoggerImpl& logger = log::Logger::m_instance;
        const log::LoggerImpl::WriteFn saved = logger.write;
        logger.write = &LockingSink::write;
        QM_LOG_SYSTEM("raise SIGTERM");
        logger.write = saved;
    }

    EXPECT_FALSE(LockingSink::m_blocked);
    EXPECT_EQ(LockingSink::m_lines, 1);
    EXPECT_EQ(ServiceBase::m_signal_stop.load(), 1);
    ServiceBase::log_pending_signals();
    EXPECT_EQ(capture.texts(), (std::vector<std::string>{
                                   received(15), "SERVICE: application stop has been requested"}));
}

// Without SA_RESTART a signal makes a blocking call return EINTR instead of resuming it: this is
// what lets a stop signal end the receive loop.
TEST_F(SignalsTest, SignalInterruptsABlockingRead) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    // Written by the reader thread, read by the test thread; relaxed for `done` because the join
    // orders the other two.
    std::atomic<bool> done{false};
    ssize_t result = 0;
    int error = 0;
    std::thread reader([&] {
        char byte = 0;
        result = ::read(fds[0], &byte, 1);
        error = errno;
        done.store(true, std::memory_order_relaxed);
    });

    // Repeat the signal: the first one may arrive before the thread blocks in read.
    const bool interrupted = qm::test::poll_until(
        [&] {
            ::pthread_kill(reader.native_handle(), SIGUSR1);
            return done.load(std::memory_order_relaxed);
        },
        std::chrono::milliseconds(5000), std::chrono::milliseconds(20));
    if (!interrupted) {
        const char byte = 0;
        EXPECT_EQ(::write(fds[1], &byte, 1), 1);  // release the reader so that the test ends
    }
    reader.join();
    ::close(fds[0]);
    ::close(fds[1]);

    EXPECT_TRUE(interrupted);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
    EXPECT_TRUE(ServiceBase::m_signal_user1.load());
}

}  // namespace
}  // namespace qm::app::test
