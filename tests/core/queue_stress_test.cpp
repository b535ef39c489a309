// Producer and consumer threads against each other, in numbers large enough for a lost, repeated
// or reordered element to show. The counts are smaller under ThreadSanitizer, which slows every
// access down by an order of magnitude.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "core/queue.hpp"
#include "core/queue_reader.hpp"
#include "core/rc_ptr.hpp"
#include "log_capture.hpp"
#include "media/packet_buffer.hpp"

#if defined(__SANITIZE_THREAD__)
#define QM_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QM_UNDER_TSAN 1
#endif
#endif

namespace qm {
namespace {

using media::PacketBuffer;
using Pointer = rc_ptr<PacketBuffer>;

#ifdef QM_UNDER_TSAN
constexpr std::uint64_t BUFFER_ELEMENTS = 2000000;
constexpr std::uint64_t ELEMENTS = 2000000;
#else
constexpr std::uint64_t BUFFER_ELEMENTS = 20000000;
constexpr std::uint64_t ELEMENTS = 20000000;
#endif

constexpr std::uint64_t ONE_SECOND = 1000000000;

// Packet buffers from the pool, through the packet ring, as the receive path and the packet
// reader pass them: allocated on the producer, released on the consumer.
TEST(QueueStressTest, PacketBuffersArriveOnceInOrderAndAllReturnToThePool) {
    test::LogCapture capture;
    auto queue = std::make_unique<Queue<Pointer, 100000, true>>();
    std::uint64_t received = 0;
    std::uint64_t out_of_order = 0;

    std::thread consumer([&] {
        Pointer buffer;
        while (received < BUFFER_ELEMENTS) {
            if (!queue->try_pop(buffer)) {
                queue->wait(ONE_SECOND, [] { return false; });
                continue;
            }
            std::uint64_t sequence = 0;
            std::memcpy(&sequence, buffer->data(), sizeof(sequence));
            out_of_order += sequence == received && buffer->size() == sizeof(sequence) ? 0 : 1;
            ++received;
            buffer = nullptr;
        }
    });

    std::uint64_t pool_retries = 0;
    for (std::uint64_t sequence = 0; sequence < BUFFER_ELEMENTS; ++sequence) {
        Pointer buffer;
        while (!buffer) {
            try {
                buffer = new PacketBuffer();
            } catch (const PacketBuffer::BadAlloc&) {
                ++pool_retries;
                std::this_thread::yield();
            }
        }
        EXPECT_TRUE(buffer->append(&sequence, sizeof(sequence)));
        while (!queue->push(buffer)) {
            std::this_thread::yield();
        }
    }
    consumer.join();

    EXPECT_EQ(received, BUFFER_ELEMENTS);
    EXPECT_EQ(out_of_order, 0U);
    EXPECT_EQ(queue->tail(), BUFFER_ELEMENTS);
    EXPECT_EQ(queue->head(), BUFFER_ELEMENTS);
    EXPECT_EQ(PacketBuffer::allocator.free_count(), PacketBuffer::POOL_SIZE);
    EXPECT_TRUE(capture.lines().empty());
    RecordProperty("pool_retries", static_cast<int>(pool_retries));
}

// Counts and checks what its thread reads; 0 is the empty tick.
class SequenceReader final : public QueueReader<std::uint64_t, 1024, ONE_SECOND> {
public:
    ~SequenceReader() override { EXPECT_EQ(stop(), 0); }

    void on_queue_read(std::uint64_t value) override {
        if (value == 0) {
            return;
        }
        out_of_order += value == received + 1 ? 0 : 1;
        ++received;
    }

    // Written by the reader thread, read by the test after `stop` has joined it.
    std::uint64_t received = 0;
    std::uint64_t out_of_order = 0;
};

TEST(QueueStressTest, ReaderThreadConsumesWhileTheProducerPushes) {
    SequenceReader reader;
    ASSERT_EQ(reader.start(), 0);
    std::uint64_t refused = 0;
    for (std::uint64_t value = 1; value <= ELEMENTS; ++value) {
        while (!reader.push(value)) {
            ++refused;
            std::this_thread::yield();
        }
    }
    ASSERT_EQ(reader.stop(), 0);
    EXPECT_EQ(reader.received, ELEMENTS);
    EXPECT_EQ(reader.out_of_order, 0U);
    const QueueReaderStatistic& statistic = reader.statistic();
    EXPECT_EQ(statistic.passed_elements.load(), ELEMENTS);
    EXPECT_EQ(statistic.dropped_elements.load(), refused);
    EXPECT_EQ(statistic.elements.load(), 0U);
}

// A fixed set of items cycles between two threads the way media buffers do: the first takes
// from the free list and sends on a work ring, the second returns them to the free list.
TEST(QueueStressTest, FreeListCirculatesItemsBetweenTwoThreads) {
    struct Item {
        std::uint64_t sequence = 0;
        std::uint64_t uses = 0;
    };
    constexpr std::size_t ITEMS = 64;
    std::vector<Item> items(ITEMS);
    DynamicQueue<Item*, false> free_list(ITEMS);
    DynamicQueue<Item*, false> work(ITEMS);
    for (Item& item : items) {
        ASSERT_TRUE(free_list.push(&item));
    }

    std::uint64_t returned = 0;
    std::uint64_t out_of_order = 0;
    std::thread returner([&] {
        Item* item = nullptr;
        while (returned < ELEMENTS) {
            if (!work.try_pop(item)) {
                std::this_thread::yield();
                continue;
            }
            out_of_order += item->sequence == returned ? 0 : 1;
            ++item->uses;
            ++returned;
            // Never full: there are only as many items as slots.
            EXPECT_TRUE(free_list.push(item));
        }
    });

    Item* item = nullptr;
    for (std::uint64_t sequence = 0; sequence < ELEMENTS; ++sequence) {
        while (!free_list.try_pop(item)) {
            std::this_thread::yield();
        }
        item->sequence = sequence;
        ASSERT_TRUE(work.push(item));
    }
    returner.join();

    EXPECT_EQ(out_of_order, 0U);
    EXPECT_EQ(free_list.size(), ITEMS);
    std::uint64_t uses = 0;
    for (const Item& each : items) {
        uses += each.uses;
    }
    EXPECT_EQ(uses, ELEMENTS);
}

// Two threads copying and dropping pointers to one object: it is deleted exactly once, after
// both are done, and no count ever goes below zero.
TEST(QueueStressTest, ReferenceCountsStayExactUnderConcurrentCopies) {
    class Shared : public ReferenceCountable {
    public:
        explicit Shared(std::atomic<int>& destructions) : m_destructions(destructions) {}
        ~Shared() override { m_destructions.fetch_add(1, std::memory_order_relaxed); }

    private:
        std::atomic<int>& m_destructions;
    };
    test::LogCapture capture;
    std::atomic<int> destructions{0};
    rc_ptr<Shared> original(new Shared(destructions));
    const auto churn = [&original] {
        for (std::uint64_t i = 0; i < ELEMENTS / 10; ++i) {
            rc_ptr<Shared> copy(original);
            rc_ptr<Shared> another;
            another = copy;
        }
    };
    std::thread first(churn);
    std::thread second(churn);
    first.join();
    second.join();
    EXPECT_EQ(original->reference_count(), 1);
    EXPECT_EQ(destructions.load(), 0);
    original = nullptr;
    EXPECT_EQ(destructions.load(), 1);
    EXPECT_TRUE(capture.lines().empty());
}

}  // namespace
}  // namespace qm
