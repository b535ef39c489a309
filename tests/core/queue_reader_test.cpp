#include "core/queue_reader.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "core/queue_idle_reader.hpp"
#include "core/rc_ptr.hpp"
#include "media/packet_buffer.hpp"
#include "poll.hpp"

namespace qm {
namespace {

using media::PacketBuffer;
using Pointer = rc_ptr<PacketBuffer>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::uint64_t ONE_SECOND = 1000000000;
constexpr std::uint64_t ONE_MINUTE = 60 * ONE_SECOND;
constexpr std::size_t SLOTS = PacketBuffer::POOL_SIZE;
constexpr milliseconds DEADLINE(5000);

Pointer make_buffer(std::uint64_t sequence) {
    Pointer buffer(new PacketBuffer());
    EXPECT_TRUE(buffer->append(&sequence, sizeof(sequence)));
    return buffer;
}

std::uint64_t sequence_of(const Pointer& buffer) {
    std::uint64_t sequence = 0;
    std::memcpy(&sequence, buffer->data(), sizeof(sequence));
    return sequence;
}

// What a test reader's thread handed over, shared with the test thread. With the gate closed, a
// read of an element blocks (after recording it) until the test opens the gate.
class Probe {
public:
    void read(const Pointer& value) {
        std::unique_lock lock(m_mutex);
        if (!value) {
            m_ticks.push_back(Clock::now());
            return;
        }
        m_values.push_back(sequence_of(value));
        m_blocked = m_gate_closed;
        m_opened.wait(lock, [this] { return !m_gate_closed; });
        m_blocked = false;
    }

    void close_gate() {
        std::lock_guard lock(m_mutex);
        m_gate_closed = true;
    }
    void open_gate() {
        std::lock_guard lock(m_mutex);
        m_gate_closed = false;
        m_opened.notify_all();
    }
    bool blocked() const {
        std::lock_guard lock(m_mutex);
        return m_blocked;
    }
    std::vector<std::uint64_t> values() const {
        std::lock_guard lock(m_mutex);
        return m_values;
    }
    std::vector<Clock::time_point> ticks() const {
        std::lock_guard lock(m_mutex);
        return m_ticks;
    }

    // Passes begun by an idle reader (its `on_queue_try` calls). Relaxed: only a count.
    std::atomic<std::uint64_t> tries{0};

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_opened;
    bool m_gate_closed = false;
    bool m_blocked = false;
    std::vector<std::uint64_t> m_values;
    std::vector<Clock::time_point> m_ticks;
};

// The test readers stop themselves in their destructor, while their own members still exist.
template <std::size_t N, std::uint64_t WaitNs>
class PlainReader final : public QueueReader<Pointer, N, WaitNs> {
public:
    explicit PlainReader(Probe& probe, QueueReaderStatistic* statistic = nullptr) requires(N != 0)
        : QueueReader<Pointer, N, WaitNs>(statistic), m_probe(probe) {}
    PlainReader(Probe& probe, std::uint64_t capacity) requires(N == 0)
        : QueueReader<Pointer, N, WaitNs>(capacity), m_probe(probe) {}
    ~PlainReader() override { EXPECT_EQ(this->stop(), 0); }

    void on_queue_read(Pointer value) override { m_probe.read(value); }

private:
    Probe& m_probe;
};

template <std::uint64_t WaitNs, typename S = QueueIdleReaderStatistic>
class IdleReader final : public QueueIdleReader<Pointer, 16, WaitNs, S> {
public:
    IdleReader(Probe& probe, bool idle_result, S* statistic = nullptr)
        : QueueIdleReader<Pointer, 16, WaitNs, S>(statistic),
          m_probe(probe),
          m_idle_result(idle_result) {}
    ~IdleReader() override { EXPECT_EQ(this->stop(), 0); }

    void on_queue_read(Pointer value) override { m_probe.read(value); }
    void on_queue_try() override { m_probe.tries.fetch_add(1, std::memory_order_relaxed); }
    bool on_queue_idle() override { return m_idle_result; }

private:
    Probe& m_probe;
    const bool m_idle_result;
};

class QueueReaderTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(PacketBuffer::allocator.free_count(), SLOTS); }

    // Ten buffers queued, the reader blocked inside the read of the first, and `stop` called from
    // another thread; then the gate opens and the stop completes.
    template <typename Reader>
    static void stop_while_reading(Reader& reader, Probe& probe) {
        probe.close_gate();
        ASSERT_EQ(reader.start(), 0);
        for (std::uint64_t i = 1; i <= 10; ++i) {
            ASSERT_TRUE(reader.push(make_buffer(i)));
        }
        ASSERT_TRUE(test::poll_until([&] { return probe.blocked(); }, DEADLINE));
        int stopped = -1;
        std::thread stopper([&] { stopped = reader.stop(); });
        ASSERT_TRUE(test::poll_until([&] { return !reader.is_running(); }, DEADLINE));
        probe.open_gate();
        stopper.join();
        EXPECT_EQ(stopped, 0);
    }
};

// Starts `reader` on an empty queue and expects its first two empty-value ticks each a whole
// second at least after the start and after each other: the waits run on the monotonic clock,
// which steady_clock reads too. How late a wait wakes is for BM_TimedWaitOnEmptyQueue in
// bench/queue_benchmark.cpp to show, not a bound here.
template <typename Reader>
void expect_two_ticks_at_least_one_second_apart(Reader& reader, const Probe& probe) {
    const auto started = Clock::now();
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return probe.ticks().size() >= 2; }, DEADLINE));
    const std::vector<Clock::time_point> ticks = probe.ticks();
    EXPECT_GE(ticks[0] - started, std::chrono::seconds(1));
    EXPECT_GE(ticks[1] - ticks[0], std::chrono::seconds(1));
}

TEST_F(QueueReaderTest, PlainReaderTicksOncePerSecondOnAnEmptyQueue) {
    Probe probe;
    PlainReader<16, ONE_SECOND> reader(probe);
    expect_two_ticks_at_least_one_second_apart(reader, probe);
    EXPECT_TRUE(probe.values().empty());
}

TEST_F(QueueReaderTest, IdleReaderTicksOncePerSecondWhenItsHookHasNoWork) {
    Probe probe;
    IdleReader<ONE_SECOND> reader(probe, false);
    expect_two_ticks_at_least_one_second_apart(reader, probe);
}

TEST_F(QueueReaderTest, IdleReaderWhoseHookWorksNeverSleepsAndCountsEveryPassTwice) {
    Probe probe;
    // A one-millisecond period: any sleep would have ended in a tick.
    IdleReader<1000000> reader(probe, true);
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return reader.statistic().idle_hits >= 10000; }, DEADLINE));
    ASSERT_EQ(reader.stop(), 0);
    const QueueIdleReaderStatistic& statistic = reader.statistic();
    EXPECT_EQ(statistic.idle_checks.load(), statistic.idle_hits.load());
    EXPECT_EQ(probe.tries.load(), statistic.idle_checks.load());
    EXPECT_TRUE(probe.ticks().empty());
    EXPECT_TRUE(probe.values().empty());
}

TEST_F(QueueReaderTest, IdleReaderWhoseHookHasNoWorkCountsOnlyChecksAndSleeps) {
    Probe probe;
    constexpr std::uint64_t PERIOD = 20000000;  // 20 ms
    IdleReader<PERIOD> reader(probe, false);
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return probe.ticks().size() >= 5; }, DEADLINE));
    ASSERT_EQ(reader.stop(), 0);
    const std::vector<Clock::time_point> ticks = probe.ticks();
    const QueueIdleReaderStatistic& statistic = reader.statistic();
    EXPECT_EQ(statistic.idle_hits.load(), 0U);
    // One check per period slept; the stop may cut the last sleep short, before its tick.
    EXPECT_GE(statistic.idle_checks.load(), ticks.size());
    EXPECT_LE(statistic.idle_checks.load(), ticks.size() + 1);
    EXPECT_EQ(probe.tries.load(), statistic.idle_checks.load());
    EXPECT_GE(ticks[4] - ticks[0], milliseconds(4 * 20));
}

TEST_F(QueueReaderTest, PlainReaderDeliversEverythingQueuedBeforeItStops) {
    Probe probe;
    PlainReader<16, ONE_MINUTE> reader(probe);
    stop_while_reading(reader, probe);
    EXPECT_EQ(probe.values(), (std::vector<std::uint64_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(reader.statistic().elements.load(), 0U);
    EXPECT_EQ(reader.statistic().passed_elements.load(), 10U);
}

TEST_F(QueueReaderTest, IdleReaderStopsWithoutDrainingAndItsQueueReleasesTheRest) {
    Probe probe;
    {
        IdleReader<ONE_MINUTE> reader(probe, false);
        stop_while_reading(reader, probe);
        EXPECT_EQ(probe.values(), std::vector<std::uint64_t>{1});
        EXPECT_EQ(reader.statistic().elements.load(), 9U);
        EXPECT_EQ(reader.queue().size(), 9U);
        EXPECT_EQ(PacketBuffer::allocator.free_count(), SLOTS - 9);
    }
    EXPECT_EQ(PacketBuffer::allocator.free_count(), SLOTS);
}

TEST_F(QueueReaderTest, PushWakesASleepingPlainReaderAndStopDoesNotWaitOutThePeriod) {
    Probe probe;
    PlainReader<16, ONE_MINUTE> reader(probe);
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(reader.push(make_buffer(1)));
    ASSERT_TRUE(test::poll_until([&] { return probe.values().size() == 1; }, DEADLINE));
    ASSERT_TRUE(reader.push(make_buffer(2)));
    ASSERT_TRUE(test::poll_until([&] { return probe.values().size() == 2; }, DEADLINE));
    const auto stopping = Clock::now();
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_LT(Clock::now() - stopping, DEADLINE);
    EXPECT_TRUE(probe.ticks().empty());
}

TEST_F(QueueReaderTest, PushWakesASleepingIdleReaderAndStopDoesNotWaitOutThePeriod) {
    Probe probe;
    IdleReader<ONE_MINUTE> reader(probe, false);
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return reader.statistic().idle_checks >= 1; }, DEADLINE));
    ASSERT_TRUE(reader.push(make_buffer(7)));
    ASSERT_TRUE(test::poll_until([&] { return probe.values().size() == 1; }, DEADLINE));
    ASSERT_TRUE(test::poll_until([&] { return reader.statistic().idle_checks >= 2; }, DEADLINE));
    const auto stopping = Clock::now();
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_LT(Clock::now() - stopping, DEADLINE);
    EXPECT_TRUE(probe.ticks().empty());
    EXPECT_EQ(reader.statistic().idle_hits.load(), 0U);
}

TEST_F(QueueReaderTest, FullQueueOfOneHundredThousandRefusesAndCountsTheDrop) {
    Probe probe;
    {
        PlainReader<100000, ONE_SECOND> reader(probe);  // never started: nobody reads
        for (std::uint64_t i = 1; i <= 100000; ++i) {
            ASSERT_TRUE(reader.push(make_buffer(i))) << i;
        }
        EXPECT_FALSE(reader.push(make_buffer(100001)));
        const QueueReaderStatistic& statistic = reader.statistic();
        EXPECT_EQ(statistic.passed_elements.load(), 100000U);
        EXPECT_EQ(statistic.dropped_elements.load(), 1U);
        // The refused buffer went back to the pool at once.
        EXPECT_EQ(PacketBuffer::allocator.free_count(), SLOTS - 100000);
    }
    EXPECT_TRUE(probe.values().empty());
}

TEST_F(QueueReaderTest, ReaderWithCapacityGivenAtConstruction) {
    Probe probe;
    PlainReader<0, ONE_MINUTE> reader(probe, 3);
    EXPECT_EQ(reader.queue().capacity(), 3U);
    for (std::uint64_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(reader.push(make_buffer(i)));
    }
    EXPECT_FALSE(reader.push(make_buffer(4)));
    EXPECT_EQ(reader.statistic().dropped_elements.load(), 1U);
    ASSERT_EQ(reader.start(), 0);
    ASSERT_EQ(reader.stop(), 0);
    EXPECT_EQ(probe.values(), (std::vector<std::uint64_t>{1, 2, 3}));
}

TEST_F(QueueReaderTest, CountsIntoTheRecordItIsGiven) {
    Probe probe;
    QueueReaderStatistic external;
    PlainReader<16, ONE_MINUTE> reader(probe, &external);
    EXPECT_EQ(&reader.statistic(), &external);
    ASSERT_TRUE(reader.push(make_buffer(1)));
    EXPECT_EQ(external.passed_elements.load(), 1U);

    PlainReader<16, ONE_MINUTE> owning(probe);
    EXPECT_NE(&owning.statistic(), &external);
    ASSERT_TRUE(owning.push(make_buffer(2)));
    EXPECT_EQ(owning.statistic().passed_elements.load(), 1U);
    EXPECT_EQ(external.passed_elements.load(), 1U);
}

// A record that extends the idle reader's, as a concrete reader's record does.
struct ExtendedStatistic : QueueIdleReaderStatistic {
    StatisticCounter own;
};

TEST_F(QueueReaderTest, IdleReaderCountsIntoAnExtendedRecord) {
    Probe probe;
    ExtendedStatistic statistic;
    IdleReader<1000000, ExtendedStatistic> reader(probe, true, &statistic);
    EXPECT_EQ(&reader.statistic(), &statistic);
    ASSERT_TRUE(reader.push(make_buffer(1)));
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return statistic.idle_hits >= 100; }, DEADLINE));
    ASSERT_EQ(reader.stop(), 0);
    EXPECT_EQ(probe.values(), std::vector<std::uint64_t>{1});
    EXPECT_EQ(statistic.passed_elements.load(), 1U);
    EXPECT_EQ(statistic.idle_checks.load(), statistic.idle_hits.load());
    EXPECT_EQ(probe.tries.load(), statistic.idle_checks + 1);  // one pass read the element
    EXPECT_EQ(statistic.own.load(), 0U);
}

TEST_F(QueueReaderTest, ThreadRunsBetweenStartAndStop) {
    Probe probe;
    PlainReader<16, ONE_MINUTE> reader(probe);
    EXPECT_FALSE(reader.is_running());
    EXPECT_EQ(reader.stop(), 0);  // never started: nothing to join
    ASSERT_EQ(reader.start(), 0);
    EXPECT_TRUE(reader.is_running());
    EXPECT_EQ(reader.start(), EBUSY);
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_FALSE(reader.is_running());
    EXPECT_EQ(reader.stop(), 0);
    ASSERT_EQ(reader.start(), 0);  // a stopped thread may be started again
    ASSERT_TRUE(reader.push(make_buffer(5)));
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_EQ(probe.values(), std::vector<std::uint64_t>{5});
}

}  // namespace
}  // namespace qm
