#include "core/queue.hpp"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/rc_ptr.hpp"
#include "core/reference_countable.hpp"
#include "poll.hpp"

namespace qm {
namespace {

using Clock = std::chrono::steady_clock;

class Shared : public ReferenceCountable {};

// The layout that keeps producer and consumer off each other's cache lines: the shared line,
// then tail's line, then head's.
static_assert(alignof(Queue<int, 8, true>) == 128);
static_assert(sizeof(Queue<int, 8, true>) == 3 * 128);
static_assert(sizeof(DynamicQueue<int*, false>) == 3 * 128);
// A queue that cannot be waited on has no waiting interface (and no mutex behind it).
template <typename Q>
concept Wakeable = requires(Q& queue) {
    queue.wake();
};
static_assert(Wakeable<Queue<int, 8, true>>);
static_assert(!Wakeable<DynamicQueue<int*, false>>);

TEST(QueueTest, StartsEmpty) {
    Queue<int, 8, true> queue;
    EXPECT_EQ(queue.capacity(), 8U);
    EXPECT_EQ(queue.size(), 0U);
    EXPECT_TRUE(queue.empty());
    int out = 7;
    EXPECT_FALSE(queue.try_pop(out));
    EXPECT_EQ(out, 7);
}

TEST(QueueTest, CapacityOneHundredThousandAcceptsThatManyThenRefuses) {
    Queue<std::uint64_t, 100000, true> queue;
    for (std::uint64_t i = 0; i < 100000; ++i) {
        ASSERT_TRUE(queue.push(i)) << i;
    }
    EXPECT_EQ(queue.size(), 100000U);
    EXPECT_FALSE(queue.push(100000));
    EXPECT_EQ(queue.size(), 100000U);
    EXPECT_EQ(queue.tail(), 100000U);
    std::uint64_t out = 0;
    ASSERT_TRUE(queue.try_pop(out));
    EXPECT_EQ(out, 0U);
    EXPECT_TRUE(queue.push(100000));
}

TEST(QueueTest, ElementsComeOutInOrder) {
    DynamicQueue<int, false> queue(5);
    for (int i = 1; i <= 5; ++i) {
        ASSERT_TRUE(queue.push(i));
    }
    for (int i = 1; i <= 5; ++i) {
        int out = 0;
        ASSERT_TRUE(queue.try_pop(out));
        EXPECT_EQ(out, i);
    }
    EXPECT_TRUE(queue.empty());
}

TEST(QueueTest, CountersGrowPastTheCapacityWhileSlotsWrap) {
    DynamicQueue<int, true> queue(3);
    EXPECT_EQ(queue.capacity(), 3U);
    int next_in = 0;
    int next_out = 0;
    ASSERT_TRUE(queue.push(next_in++));
    ASSERT_TRUE(queue.push(next_in++));
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(queue.push(next_in++));
        EXPECT_FALSE(queue.push(-1));  // full: three in the ring
        int out = -1;
        ASSERT_TRUE(queue.try_pop(out));
        EXPECT_EQ(out, next_out++);
        EXPECT_EQ(queue.size(), 2U);
    }
    EXPECT_EQ(queue.tail(), 12U);
    EXPECT_EQ(queue.head(), 10U);
    for (int out = -1; queue.try_pop(out);) {
        EXPECT_EQ(out, next_out++);
    }
    EXPECT_EQ(next_out, 12);
    EXPECT_EQ(queue.head(), 12U);
}

TEST(QueueTest, PopLeavesAnEmptySlotSoTheQueueHoldsNoReference) {
    auto* object = new Shared();
    rc_ptr<Shared> mine(object);
    Queue<rc_ptr<Shared>, 4, true> queue;
    ASSERT_TRUE(queue.push(mine));
    EXPECT_EQ(object->reference_count(), 2);
    rc_ptr<Shared> out;
    ASSERT_TRUE(queue.try_pop(out));
    EXPECT_EQ(out.get(), object);
    EXPECT_EQ(object->reference_count(), 2);
    out = nullptr;
    EXPECT_EQ(object->reference_count(), 1);
}

TEST(QueueTest, RefusedElementIsNotKept) {
    auto* object = new Shared();
    rc_ptr<Shared> mine(object);
    Queue<rc_ptr<Shared>, 1, false> queue;
    ASSERT_TRUE(queue.push(mine));
    EXPECT_FALSE(queue.push(mine));
    EXPECT_EQ(object->reference_count(), 2);
}

TEST(QueueTest, DestroyingTheQueueReleasesWhatIsLeft) {
    auto* object = new Shared();
    rc_ptr<Shared> mine(object);
    {
        DynamicQueue<rc_ptr<Shared>, true> queue(4);
        ASSERT_TRUE(queue.push(mine));
        ASSERT_TRUE(queue.push(mine));
        EXPECT_EQ(object->reference_count(), 3);
    }
    EXPECT_EQ(object->reference_count(), 1);
}

TEST(QueueTest, FreeListPushesAndPopsWithoutWaiting) {
    int items[3] = {};
    DynamicQueue<int*, false> free_list(3);
    for (int& item : items) {
        ASSERT_TRUE(free_list.push(&item));
    }
    EXPECT_FALSE(free_list.push(&items[0]));
    int* out = nullptr;
    ASSERT_TRUE(free_list.try_pop(out));
    EXPECT_EQ(out, &items[0]);
    EXPECT_EQ(free_list.size(), 2U);
}

TEST(QueueTest, WaitReturnsAtOnceWhenAnElementIsQueued) {
    Queue<int, 4, true> queue;
    ASSERT_TRUE(queue.push(1));
    const auto started = Clock::now();
    EXPECT_TRUE(queue.wait(10000000000ULL, [] { return false; }));
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(1));
}

TEST(QueueTest, WaitReturnsAtOnceWhenAStopIsRequested) {
    Queue<int, 4, true> queue;
    const auto started = Clock::now();
    EXPECT_TRUE(queue.wait(10000000000ULL, [] { return true; }));
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(1));
}

// A batch is pushed without waking the consumer and announced once: the wake reaches a consumer
// that sleeps, and every element of the batch is there for it.
TEST(QueueTest, QuietPushesAreAnnouncedByOneWake) {
    Queue<int, 8, true> queue;
    std::atomic<pid_t> consumer_id{0};
    std::atomic<bool> woken{false};
    std::thread consumer([&] {
        consumer_id.store(::gettid());
        woken.store(queue.wait(60000000000ULL, [] { return false; }));
    });
    // Asleep: the consumer's thread sits in the kernel in futex.
    ASSERT_TRUE(test::poll_until(
        [&] {
            std::ifstream call("/proc/self/task/" + std::to_string(consumer_id.load()) +
                               "/syscall");
            long number = -1;
            call >> number;
            return consumer_id.load() != 0 && number == SYS_futex;
        },
        std::chrono::seconds(10)));

    for (int i = 1; i <= 5; ++i) {
        ASSERT_TRUE(queue.push(i, false));
    }
    queue.wake();
    consumer.join();

    EXPECT_TRUE(woken.load());
    std::vector<int> taken;
    int value = 0;
    while (queue.try_pop(value)) {
        taken.push_back(value);
    }
    EXPECT_EQ(taken, (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST(QueueTest, WaitTimesOutAfterItsPeriod) {
    Queue<int, 4, true> queue;
    const auto started = Clock::now();
    EXPECT_FALSE(queue.wait(50000000, [] { return false; }));
    const auto waited = Clock::now() - started;
    EXPECT_GE(waited, std::chrono::milliseconds(50));
    EXPECT_LT(waited, std::chrono::seconds(2));
}

}  // namespace
}  // namespace qm
