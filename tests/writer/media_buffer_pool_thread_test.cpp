#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <vector>

#include "core/queue.hpp"
#include "writer/media_buffer_pool.hpp"

namespace qm::writer {
namespace {

// The recorder's pattern: one thread acquires and fills buffers and hands them over through a
// ring, another takes them, checks their bytes and releases them. Every buffer filled arrives
// intact, and at the end every buffer is home and nothing was counted as an error.
TEST(MediaBufferPoolThreadTest, BuffersCycleBetweenTheFillingAndTheReleasingThread) {
    constexpr std::uint64_t COUNT = 16;
    constexpr std::uint64_t ROUNDS = 200000;
    MediaBufferPoolStatistic statistic;
    MediaBufferPool pool(COUNT, 64, statistic);
    DynamicQueue<MediaBuffer*, false> handed(COUNT);
    std::uint64_t corrupted = 0;

    std::thread releaser([&] {
        for (std::uint64_t round = 0; round < ROUNDS;) {
            MediaBuffer* buffer = nullptr;
            if (!handed.try_pop(buffer)) {
                std::this_thread::yield();
                continue;
            }
            const auto expected = static_cast<std::uint8_t>(round);
            corrupted += buffer->size == 1 && buffer->data[0] == expected ? 0 : 1;
            pool.release(buffer);
            ++round;
        }
    });
    for (std::uint64_t round = 0; round < ROUNDS;) {
        MediaBuffer* buffer = pool.acquire();
        if (buffer == nullptr) {
            std::this_thread::yield();
            continue;
        }
        buffer->data[0] = static_cast<std::uint8_t>(round);
        buffer->size = 1;
        while (!handed.push(buffer)) {
            std::this_thread::yield();
        }
        ++round;
    }
    releaser.join();

    EXPECT_EQ(corrupted, 0u);
    EXPECT_EQ(pool.free_count(), COUNT);
    EXPECT_EQ(statistic.buffer_pool_elements.load(), COUNT);
    EXPECT_EQ(statistic.buffer_pool_release_errors.load(), 0u);
}

}  // namespace
}  // namespace qm::writer
