#include "recorder/receive_loop.hpp"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "app/app_service.hpp"
#include "child_process.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "recorder/allowed_sources.hpp"
#include "udp_loopback.hpp"

namespace qm::recorder {
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

    bool pause(int doorbell, std::uint64_t microseconds) {
        if (m_stop_in_window.exchange(false, std::memory_order_relaxed)) {
            ::raise(SIGTERM);
        }
        return Socket::pause(doorbell, microseconds);
    }

    void stop_in_window() { m_stop_in_window.store(true, std::memory_order_relaxed); }

private:
    std::atomic<bool> m_stop_in_window{false};
};

// The same window for the packet ring's wait.
class WindowRing : public net::PacketRing {
public:
    net::Socket::Wake wait(int doorbell) {
        if (m_stop_in_window.exchange(false, std::memory_order_relaxed)) {
            ::raise(SIGTERM);
        }
        return PacketRing::wait(doorbell);
    }

    void stop_in_window() { m_stop_in_window.store(true, std::memory_order_relaxed); }

private:
    std::atomic<bool> m_stop_in_window{false};
};

// How the loop reads: one datagram per call, or batches of `batch`, sleeping `delay_us` after a
// batch that emptied the socket, or (`ring`) blocks of a packet ring.
struct LoopMode {
    std::size_t batch = 1;
    std::uint64_t delay_us = 0;
    bool ring = false;
};

// The receive loop on a thread of its own, over a loopback socket, handing what it consumes to a
// list. The loop's thread is the one the test signals, as the kernel signals the main thread.
class LoopRun {
public:
    // `waiting` datagrams are in the socket before the loop starts. With `allowed` set, only
    // those senders' datagrams are taken (the ring's filter too), the others counted.
    explicit LoopRun(LoopMode mode, bool stop_in_window = false,
                     const std::vector<std::vector<std::uint8_t>>& waiting = {},
                     const std::string& allowed = "") {
        std::string error;
        EXPECT_TRUE(net::SourceFilter::try_parse(allowed, m_allowed, error)) << error;
        if (stop_in_window) {
            m_socket.stop_in_window();
            m_ring.stop_in_window();
        }
        m_port = test::free_udp_port();
        EXPECT_TRUE(m_socket.open(m_port, INADDR_LOOPBACK));
        if (mode.ring) {
            // The ring's start-up line is not the loop's: kept out of the test's capture.
            const test::LogCapture start_up;
            // Several blocks: with one, what arrives while the loop holds it is dropped.
            EXPECT_TRUE(m_ring.open(m_port, 4 * net::PacketRing::BLOCK_SIZE, m_allowed));
        }
        for (const std::vector<std::uint8_t>& datagram : waiting) {
            send(datagram);
        }
        m_thread = std::thread([this, mode] {
            // Release: the test reads the thread's /proc entry once it sees the id.
            m_thread_id.store(::gettid(), std::memory_order_release);
            if (m_allowed.empty()) {
                run(mode, AnySource{});
            } else {
                run(mode, AllowedSources(m_allowed, m_refused));
            }
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

    std::uint16_t port() const { return m_port; }

    // A datagram: the only other thing that ends a wait.
    void release() { EXPECT_TRUE(test::send_udp(m_port, std::vector<std::uint8_t>{0x5A})); }

    void send(const std::vector<std::uint8_t>& bytes) {
        EXPECT_TRUE(test::send_udp(m_port, bytes));
    }

    // Stops the loop once it has consumed `count` datagrams (a stop leaves what is still queued
    // unread) and waits until it has returned.
    void stop_once_consumed(std::size_t count) {
        ASSERT_TRUE(test::poll_until([&] { return consumed() == count; }, 5000ms));
        signal(SIGTERM);
        ASSERT_TRUE(wait_ended(5000ms));
    }

    // Read once the loop has ended.
    const std::vector<std::vector<std::uint8_t>>& datagrams() const { return m_datagrams; }
    // Datagrams still queued in the loop's socket, taken now; called once the loop has ended.
    int socket_fd() const { return m_socket.fd(); }
    std::size_t left_in_socket() {
        net::ReceiveBatch batch(16);
        return m_socket.read_batch(batch);
    }
    // The number of datagrams consumed at each flush of the batched or the ring's loop.
    const std::vector<std::size_t>& flushes() const { return m_flushes; }

    net::RefusedSources& refused() { return m_refused; }

private:
    template <typename Admit>
    void run(LoopMode mode, Admit admit) {
        const auto consume = [this](const std::uint8_t* data, std::uint64_t length) {
            m_datagrams.emplace_back(data, data + length);
            // Relaxed: only counts; the datagrams are read after the loop has ended.
            m_consumed.fetch_add(1, std::memory_order_relaxed);
        };
        const auto flush = [this] { m_flushes.push_back(m_datagrams.size()); };
        if (mode.ring) {
            // Smaller than the tests' bursts: the drain takes several calls.
            net::ReceiveBatch drain(4, 0);
            receive_blocks_until_stopped(m_ring, m_socket, drain, consume, flush, admit);
        } else if (mode.batch == 1) {
            receive_until_stopped(m_socket, *m_buffer, consume, admit);
        } else {
            net::ReceiveBatch batch(mode.batch);
            receive_batches_until_stopped(m_socket, batch, mode.delay_us, consume, flush, admit);
        }
    }

    net::SourceFilter m_allowed;
    net::RefusedSources m_refused;
    std::uint16_t m_port = 0;
    WindowSocket m_socket;
    WindowRing m_ring;
    const std::unique_ptr<net::Socket::ReadBuffer> m_buffer =
        std::make_unique<net::Socket::ReadBuffer>();
    std::vector<std::vector<std::uint8_t>> m_datagrams;
    std::vector<std::size_t> m_flushes;
    std::atomic<std::size_t> m_consumed{0};
    std::atomic<pid_t> m_thread_id{0};
    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};

// Ten datagrams of 1 to 10 bytes, each filled with its length.
std::vector<std::vector<std::uint8_t>> ten_datagrams() {
    std::vector<std::vector<std::uint8_t>> datagrams;
    for (std::uint8_t i = 1; i <= 10; ++i) {
        datagrams.push_back(std::vector<std::uint8_t>(i, i));
    }
    return datagrams;
}

class ReceiveLoopTest : public ::testing::TestWithParam<LoopMode> {
protected:
    void SetUp() override { ASSERT_TRUE(app::ServiceBase::signals_subscribe()); }
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
TEST_P(ReceiveLoopTest, StopAtARandomMomentNeverWaitsForADatagram) {
    // A packet ring takes the system some 40 ms to set up and take down: fewer runs of it.
    const int RUNS = GetParam().ring ? 100 : 1000;
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> delay_us(0, 300);
    std::uniform_int_distribution<int> moment(0, 2);
    int in_window = 0;
    for (int run = 0; run < RUNS; ++run) {
        ASSERT_TRUE(app::ServiceBase::signals_subscribe());
        const bool window = moment(random) == 0;
        in_window += window ? 1 : 0;
        LoopRun loop(GetParam(), window);
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

TEST_P(ReceiveLoopTest, DatagramsReachTheConsumerWholeAndInOrder) {
    const std::vector<std::vector<std::uint8_t>> sent = {
        {1, 2, 3}, std::vector<std::uint8_t>(1376, 0xA5), std::vector<std::uint8_t>(40, 7)};
    LoopRun loop(GetParam());
    for (const std::vector<std::uint8_t>& datagram : sent) {
        loop.send(datagram);
    }
    loop.stop_once_consumed(sent.size());

    EXPECT_EQ(loop.datagrams(), sent);
}

// Signals that do not stop: their lines are logged by the loop itself, in order with the
// socket's interruption line, and the loop goes on receiving.
TEST_P(ReceiveLoopTest, OtherSignalsAreLoggedAndTheLoopGoesOn) {
    LoopRun loop(GetParam());
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
TEST_P(ReceiveLoopTest, StopWhileWaitingLogsTheStopThenTheInterruption) {
    LoopRun loop(GetParam());
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

// Batches: every datagram waiting is taken, at most `batch` a call, and each call's datagrams are
// flushed together once.
TEST(ReceiveBatchLoopTest, WaitingDatagramsAreTakenInBatchesAndFlushedOncePerBatch) {
    ASSERT_TRUE(app::ServiceBase::signals_subscribe());
    test::LogCapture capture;
    const std::vector<std::vector<std::uint8_t>> sent = ten_datagrams();
    // A long sleep after a partial batch: everything sent meanwhile waits for the next read.
    LoopRun loop(LoopMode{4, 3000000});
    ASSERT_TRUE(loop.wait_blocked_in_poll(5000ms));
    loop.send(sent[0]);
    ASSERT_TRUE(test::poll_until([&] { return loop.consumed() == 1; }, 5000ms));
    for (std::size_t i = 1; i < sent.size(); ++i) {
        loop.send(sent[i]);
    }
    // The stop cuts the sleep short; the loop then ends without another read.
    loop.signal(SIGTERM);
    ASSERT_TRUE(loop.wait_ended(5000ms));

    EXPECT_EQ(loop.flushes(), (std::vector<std::size_t>{1}));
    EXPECT_EQ(loop.datagrams(), std::vector<std::vector<std::uint8_t>>{sent[0]});
    ::signal(SIGTERM, SIG_DFL);
}

TEST(ReceiveBatchLoopTest, FullBatchesAreReadBackToBack) {
    ASSERT_TRUE(app::ServiceBase::signals_subscribe());
    test::LogCapture capture;
    const std::vector<std::vector<std::uint8_t>> sent = ten_datagrams();
    // Loopback delivers within sendto: all ten wait in the socket when the loop starts.
    LoopRun loop(LoopMode{4, 3000000}, false, sent);
    loop.stop_once_consumed(sent.size());

    EXPECT_EQ(loop.datagrams(), sent);
    // Four, four, then the two left: the partial batch ends the run of reads.
    EXPECT_EQ(loop.flushes(), (std::vector<std::size_t>{4, 8, 10}));
    ::signal(SIGTERM, SIG_DFL);
}

// Every datagram of a block is consumed before the block's one flush.
TEST(ReceiveRingLoopTest, EachBlockIsFlushedOnceAfterItsDatagrams) {
    ASSERT_TRUE(app::ServiceBase::signals_subscribe());
    test::LogCapture capture;
    const std::vector<std::vector<std::uint8_t>> sent = ten_datagrams();
    LoopRun loop(LoopMode{1, 0, true});
    ASSERT_TRUE(loop.wait_blocked_in_poll(5000ms));
    for (const std::vector<std::uint8_t>& datagram : sent) {
        loop.send(datagram);
    }
    loop.stop_once_consumed(sent.size());

    EXPECT_EQ(loop.datagrams(), sent);
    // However the system cut the blocks, each flush follows a block of at least one datagram,
    // and the last one comes after the last datagram.
    ASSERT_FALSE(loop.flushes().empty());
    EXPECT_EQ(
        std::adjacent_find(loop.flushes().begin(), loop.flushes().end(), std::greater_equal<>()),
        loop.flushes().end());
    EXPECT_GT(loop.flushes().front(), 0u);
    EXPECT_EQ(loop.flushes().back(), sent.size());
    // The socket's copies were drained after the last block, none dropped.
    EXPECT_EQ(loop.left_in_socket(), 0u);
    EXPECT_EQ(net::kernel_drops(loop.socket_fd()), 0u);
    ::signal(SIGTERM, SIG_DFL);
}

// Datagrams from a sender not allowed are counted, not consumed, whichever way they are read;
// those of an allowed sender sent in between arrive whole and in order.
TEST_P(ReceiveLoopTest, RefusedSendersAreCountedAndNotConsumed) {
    LoopRun loop(GetParam(), false, {}, "127.0.0.1/32");
    test::UdpSender refused(loop.port(), 0x7F000002);
    test::UdpSender allowed(loop.port(), 0x7F000001);
    std::vector<std::vector<std::uint8_t>> sent;
    for (std::uint8_t i = 0; i < 30; ++i) {
        ASSERT_TRUE(refused.send(std::vector<std::uint8_t>(20, i)));
        // An empty datagram is counted too.
        ASSERT_TRUE(refused.send({}));
        sent.push_back(std::vector<std::uint8_t>(10 + i, i));
        ASSERT_TRUE(allowed.send(sent.back()));
    }
    // The ring's loop counts refusals when it drains the socket: after a block, or at the latest
    // when its wait times out.
    ASSERT_TRUE(test::poll_until([&] { return loop.consumed() == sent.size(); }, 5000ms));
    std::uint64_t counted = 0;
    net::RefusedSources::Refusals last;
    ASSERT_TRUE(test::poll_until(
        [&] {
            last = loop.refused().take();
            counted += last.count;
            return counted >= 60;
        },
        5000ms));
    loop.stop_once_consumed(sent.size());

    EXPECT_EQ(loop.datagrams(), sent);
    EXPECT_EQ(counted + loop.refused().take().count, 60u);
    EXPECT_EQ(last.address, 0x7F000002u);
    EXPECT_EQ(last.port, refused.local_port());
}

INSTANTIATE_TEST_SUITE_P(Modes, ReceiveLoopTest,
                         ::testing::Values(LoopMode{1, 0}, LoopMode{4, 0}, LoopMode{4, 500},
                                           LoopMode{1, 0, true}),
                         [](const ::testing::TestParamInfo<LoopMode>& info) {
                             return info.param.ring            ? std::string("Ring")
                                    : info.param.batch == 1    ? std::string("OneByOne")
                                    : info.param.delay_us == 0 ? std::string("Batches")
                                                               : std::string("BatchesWithDelay");
                         });

}  // namespace
}  // namespace qm::recorder
