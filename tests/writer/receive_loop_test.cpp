#include "writer/receive_loop.hpp"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "app/app_service.hpp"
#include "child_process.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "udp_loopback.hpp"

namespace qm::writer {
namespace {

using namespace std::chrono_literals;

const std::string STOP_RECEIVED = "SERVICE: signal 15 has been received";
const std::string STOP_REQUESTED = "SERVICE: application stop has been requested";

// A loopback socket that can send a stop to its own thread at the start of its next wait: after
// the loop has looked at the stop flag and before the wait blocks, the window in which a stop
// used to go unnoticed until the next datagram.
class WindowSocket : public net::Socket {
public:
    Wake wait(int doorbell) {
        // Relaxed: set and read on the loop's own thread, or set before the thread starts.
        if (m_stop_in_window.exchange(false, std::memory_order_relaxed)) {
            ::raise(SIGTERM);
        }
        return Socket::wait(doorbell);
    }

    void stop_in_window() { m_stop_in_window.store(true, std::memory_order_relaxed); }

private:
    std::atomic<bool> m_stop_in_window{false};
};

// The receive loop on a thread of its own, over a loopback socket, handing what it consumes to a
// list. The loop's thread is the one the test signals, as the kernel signals the main thread.
class LoopRun {
public:
    explicit LoopRun(bool stop_in_window = false) {
        if (stop_in_window) {
            m_socket.stop_in_window();
        }
        m_port = test::free_udp_port();
        EXPECT_TRUE(m_socket.open(m_port, INADDR_LOOPBACK));
        m_thread = std::thread([this] {
            // Release: the test reads the thread's /proc entry once it sees the id.
            m_thread_id.store(::gettid(), std::memory_order_release);
            receive_until_stopped(m_socket, *m_buffer,
                                  [this](const std::uint8_t* data, std::uint64_t length) {
                                      m_datagrams.emplace_back(data, data + length);
                                      // Relaxed: only counts; the datagrams are read after the
                                      // loop has ended.
                                      m_consumed.fetch_add(1, std::memory_order_relaxed);
                                  });
            // Release: the datagrams are written before the flag says the loop is over.
            m_ended.store(true, std::memory_order_release);
        });
    }

    ~LoopRun() {
        if (!ended()) {
            app::ServiceBase::m_signal_stop.store(1);
            release();
        }
        m_thread.join();
    }

    LoopRun(const LoopRun&) = delete;
    LoopRun& operator=(const LoopRun&) = delete;

    void signal(int number) { ::pthread_kill(m_thread.native_handle(), number); }

    // Waits until the loop has returned.
    bool wait_ended(std::chrono::milliseconds timeout) {
        return test::poll_until([this] { return ended(); }, timeout, 1ms);
    }

    bool ended() const { return m_ended.load(std::memory_order_acquire); }

    std::size_t consumed() const { return m_consumed.load(std::memory_order_relaxed); }

    // Waits until the loop's thread sits in the kernel in its poll.
    bool wait_blocked_in_poll(std::chrono::milliseconds timeout) const {
        return test::poll_until(
            [this] {
                const pid_t id = m_thread_id.load(std::memory_order_acquire);
                if (id == 0) {
                    return false;
                }
                const std::string call =
                    test::read_file("/proc/self/task/" + std::to_string(id) + "/syscall");
                return call.rfind(std::to_string(SYS_poll) + " ", 0) == 0 ||
                       call.rfind(std::to_string(SYS_ppoll) + " ", 0) == 0;
            },
            timeout, 1ms);
    }

    // A datagram: the only other thing that ends a wait.
    void release() { EXPECT_TRUE(test::send_udp(m_port, std::vector<std::uint8_t>{0x5A})); }

    void send(const std::vector<std::uint8_t>& bytes) {
        EXPECT_TRUE(test::send_udp(m_port, bytes));
    }

    // Read once the loop has ended.
    const std::vector<std::vector<std::uint8_t>>& datagrams() const { return m_datagrams; }

private:
    std::uint16_t m_port = 0;
    WindowSocket m_socket;
    const std::unique_ptr<net::Socket::ReadBuffer> m_buffer =
        std::make_unique<net::Socket::ReadBuffer>();
    std::vector<std::vector<std::uint8_t>> m_datagrams;
    std::atomic<std::size_t> m_consumed{0};
    std::atomic<pid_t> m_thread_id{0};
    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};

class ReceiveLoopTest : public ::testing::Test {
protected:
    void SetUp() override { app::ServiceBase::signals_subscribe(); }
    void TearDown() override {
        for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE}) {
            ::signal(signal, SIG_DFL);
        }
    }

    test::LogCapture capture;
};

// A stop at any moment, before the loop looks at its flag, between that look and its wait, or
// inside the wait, ends the loop without a datagram. The moment is drawn at random: one run in
// three puts the stop exactly into the window between the look and the wait, which a timer
// alone would almost never hit; the others signal the loop's thread after a random delay.
TEST_F(ReceiveLoopTest, StopAtARandomMomentNeverWaitsForADatagram) {
    constexpr int RUNS = 1000;
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> delay_us(0, 300);
    std::uniform_int_distribution<int> moment(0, 2);
    int in_window = 0;
    for (int run = 0; run < RUNS; ++run) {
        app::ServiceBase::signals_subscribe();
        const bool window = moment(random) == 0;
        in_window += window ? 1 : 0;
        LoopRun loop(window);
        if (!window) {
            std::this_thread::sleep_for(std::chrono::microseconds(delay_us(random)));
            loop.signal(SIGTERM);
        }
        // A stop that came before the loop's first look is logged by the frame's next safe point.
        if (!loop.wait_ended(2000ms)) {
            FAIL() << "run " << run << " waited for a datagram after its stop"
                   << (window ? ", which came between the look at the flag and the wait" : "");
        }
        app::ServiceBase::log_pending_signals();
    }

    EXPECT_GT(in_window, RUNS / 4);  // the draw did reach the window
    EXPECT_EQ(capture.count(STOP_RECEIVED), static_cast<std::size_t>(RUNS));
    EXPECT_EQ(capture.count(STOP_REQUESTED), static_cast<std::size_t>(RUNS));
}

TEST_F(ReceiveLoopTest, DatagramsReachTheConsumerWholeAndInOrder) {
    const std::vector<std::vector<std::uint8_t>> sent = {
        {1, 2, 3}, std::vector<std::uint8_t>(1376, 0xA5), std::vector<std::uint8_t>(40, 7)};
    LoopRun loop;
    for (const std::vector<std::uint8_t>& datagram : sent) {
        loop.send(datagram);
    }
    // The stop flag ends the loop without reading what is still queued: stop once all arrived.
    ASSERT_TRUE(test::poll_until([&] { return loop.consumed() == sent.size(); }, 5000ms));
    loop.signal(SIGTERM);

    ASSERT_TRUE(loop.wait_ended(5000ms));
    EXPECT_EQ(loop.datagrams(), sent);
}

// Signals that do not stop: their lines are logged by the loop itself, in order with the
// socket's interruption line, and the loop goes on receiving.
TEST_F(ReceiveLoopTest, OtherSignalsAreLoggedAndTheLoopGoesOn) {
    LoopRun loop;
    ASSERT_TRUE(loop.wait_blocked_in_poll(5000ms));
    loop.signal(SIGHUP);
    ASSERT_TRUE(capture.wait_for("SERVICE: update has been requested", 5000ms));
    const std::vector<std::uint8_t> datagram = {9, 8, 7, 6};
    loop.send(datagram);
    loop.signal(SIGTERM);

    ASSERT_TRUE(loop.wait_ended(5000ms));
    app::ServiceBase::log_pending_signals();
    const std::vector<std::string> texts = capture.texts();
    ASSERT_GE(texts.size(), 4u);
    EXPECT_EQ(texts[0], "SERVICE: signal 1 has been received");
    EXPECT_EQ(texts[1], "SERVICE: update has been requested");
    EXPECT_EQ(texts[2].substr(texts[2].find("]: ")), "]: system interrupted call");
    EXPECT_EQ(capture.count(STOP_RECEIVED), 1u);
    EXPECT_EQ(capture.count(STOP_REQUESTED), 1u);
    EXPECT_EQ(capture.count("SERVICE: signal 1 has been received"), 1u);
}

// The stop lines come before the socket's line, as the handler's own lines did.
TEST_F(ReceiveLoopTest, StopWhileWaitingLogsTheStopThenTheInterruption) {
    LoopRun loop;
    ASSERT_TRUE(loop.wait_blocked_in_poll(5000ms));
    loop.signal(SIGTERM);

    ASSERT_TRUE(loop.wait_ended(5000ms));
    const std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], STOP_RECEIVED);
    EXPECT_EQ(texts[1], STOP_REQUESTED);
    EXPECT_EQ(texts[2].substr(texts[2].find("]: ")), "]: system interrupted call");
    EXPECT_TRUE(loop.datagrams().empty());
}

}  // namespace
}  // namespace qm::writer
