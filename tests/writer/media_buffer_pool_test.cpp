#include "writer/media_buffer_pool.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <set>
#include <vector>

#include "log_capture.hpp"
#include "packet_encoder.hpp"

namespace qm::writer {
namespace {

using ::testing::ElementsAre;

std::string allocated_line(std::uint64_t count, std::uint64_t slot, std::uint64_t media) {
    return "MEDIA_BUFFER_POOL: allocated (" + std::to_string(count) + ") buffers of (" +
           std::to_string(slot) + ") bytes each including (" + std::to_string(media) +
           ") bytes of media part";
}

// A session that reports its destruction, to see who releases it.
class TrackedSession : public media::Session {
public:
    explicit TrackedSession(int& destroyed)
        : Session(test::PacketBytes(test::encode_start()).as<media::StartPacket>(), 0),
          m_destroyed(destroyed) {}
    ~TrackedSession() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

class MediaBufferPoolTest : public ::testing::Test {
protected:
    test::LogCapture capture;
    MediaBufferPoolStatistic statistic;
};

TEST_F(MediaBufferPoolTest, DefaultSizesGiveSlotsOf64128BytesWithMediaPartsOf64088) {
    MediaBufferPool pool(4000, 64000, statistic);

    EXPECT_EQ(pool.slot_size(), 64128u);
    EXPECT_EQ(pool.capacity(), 4000u);
    EXPECT_EQ(pool.free_count(), 4000u);
    EXPECT_EQ(statistic.buffer_pool_elements.load(), 4000u);
    EXPECT_THAT(capture.texts(), ElementsAre(allocated_line(4000, 64128, 64088)));
    EXPECT_THAT(capture.lines(),
                ElementsAre(::testing::StartsWith("SYSTEM  | media_buffer_pool.cpp:")));
    MediaBuffer* buffer = pool.acquire();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->capacity, 64088u);
}

TEST_F(MediaBufferPoolTest, MediaSizeThatFillsASlotExactlyIsNotRoundedFurther) {
    MediaBufferPool pool(3, 88, statistic);

    EXPECT_EQ(pool.slot_size(), 128u);
    EXPECT_THAT(capture.texts(), ElementsAre(allocated_line(3, 128, 88)));
}

TEST_F(MediaBufferPoolTest, MediaSizeZeroGivesTheSmallestSlot) {
    MediaBufferPool pool(2, 0, statistic);

    EXPECT_EQ(pool.slot_size(), 128u);
    EXPECT_THAT(capture.texts(), ElementsAre(allocated_line(2, 128, 88)));
}

TEST_F(MediaBufferPoolTest, SlotsAreAlignedDisjointAndHoldTheirMediaRightBehindTheHeader) {
    MediaBufferPool pool(5, 200, statistic);
    std::set<std::uintptr_t> slots;
    for (int i = 0; i < 5; ++i) {
        MediaBuffer* buffer = pool.acquire();
        ASSERT_NE(buffer, nullptr);
        const auto slot = reinterpret_cast<std::uintptr_t>(buffer);
        EXPECT_EQ(slot % 128, 0u);
        EXPECT_EQ(buffer->data, reinterpret_cast<std::uint8_t*>(buffer) + 40);
        EXPECT_EQ(buffer->capacity, 256u - 40u);
        EXPECT_EQ(buffer->size, 0u);
        EXPECT_FALSE(buffer->session);
        slots.insert(slot);
    }
    ASSERT_EQ(slots.size(), 5u);
    for (auto slot = slots.begin(); std::next(slot) != slots.end(); ++slot) {
        EXPECT_GE(*std::next(slot) - *slot, 256u);
    }
}

TEST_F(MediaBufferPoolTest, AcquiringOneMoreThanTheCountFailsOnceAndCountsIt) {
    for (const std::uint64_t media_size : {0u, 88u, 1000u}) {
        MediaBufferPoolStatistic counters;
        MediaBufferPool pool(3, media_size, counters);
        for (int i = 0; i < 3; ++i) {
            EXPECT_NE(pool.acquire(), nullptr) << media_size;
        }

        EXPECT_EQ(pool.acquire(), nullptr) << media_size;

        EXPECT_EQ(counters.buffer_pool_acquire_errors.load(), 1u);
        EXPECT_EQ(counters.buffer_pool_elements.load(), 0u);
        EXPECT_EQ(counters.buffer_pool_release_errors.load(), 0u);
    }
    EXPECT_EQ(capture.texts(log::Level::ERROR).size(), 0u) << "an empty pool is not logged";
}

TEST_F(MediaBufferPoolTest, ReleaseIntoAFullPoolIsRefusedLoggedAndCounted) {
    MediaBufferPool pool(2, 88, statistic);
    MediaBuffer stray{nullptr, 0, 17, nullptr};

    EXPECT_FALSE(pool.release(&stray));

    EXPECT_EQ(stray.size, 0u);
    EXPECT_EQ(statistic.buffer_pool_release_errors.load(), 1u);
    EXPECT_EQ(statistic.buffer_pool_elements.load(), 2u);
    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ElementsAre("MEDIA_BUFFER_POOL: unexpected buffer release error, this must not "
                            "happen - ask a developer to check the logic"));
}

TEST_F(MediaBufferPoolTest, ReleaseEmptiesTheBufferButKeepsItsSession) {
    int destroyed = 0;
    MediaBufferPool pool(1, 88, statistic);
    MediaBuffer* buffer = pool.acquire();
    ASSERT_NE(buffer, nullptr);
    buffer->size = 40;
    buffer->session = new TrackedSession(destroyed);

    ASSERT_TRUE(pool.release(buffer));

    EXPECT_EQ(buffer->size, 0u);
    EXPECT_TRUE(buffer->session);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(statistic.buffer_pool_elements.load(), 1u);
    MediaBuffer* again = pool.acquire();
    EXPECT_EQ(again, buffer);
    EXPECT_TRUE(again->session) << "acquire leaves the header alone";
}

// A buffer keeps its last session until it is filled again: the pool lets go of those sessions
// when it goes.
TEST_F(MediaBufferPoolTest, SessionsStillNamedByFreeBuffersAreReleasedWithThePool) {
    int destroyed = 0;
    {
        MediaBufferPool pool(2, 88, statistic);
        MediaBuffer* buffer = pool.acquire();
        buffer->session = new TrackedSession(destroyed);
        ASSERT_TRUE(pool.release(buffer));
    }
    EXPECT_EQ(destroyed, 1);
}

TEST_F(MediaBufferPoolTest, ElementsCounterFollowsEveryAcquireAndRelease) {
    MediaBufferPool pool(3, 88, statistic);
    std::vector<MediaBuffer*> taken;

    taken.push_back(pool.acquire());
    EXPECT_EQ(statistic.buffer_pool_elements.load(), 2u);
    taken.push_back(pool.acquire());
    EXPECT_EQ(statistic.buffer_pool_elements.load(), 1u);
    ASSERT_TRUE(pool.release(taken.back()));
    EXPECT_EQ(statistic.buffer_pool_elements.load(), 2u);
    EXPECT_EQ(pool.free_count(), 2u);
}

TEST_F(MediaBufferPoolTest, PoolWithoutBuffersCannotBeBuilt) {
    EXPECT_THROW(MediaBufferPool(0, 64000, statistic), std::bad_alloc);
}

TEST_F(MediaBufferPoolTest, SizesThatOverflowCannotBeBuilt) {
    EXPECT_THROW(MediaBufferPool(2, ~0ul - 10, statistic), std::bad_alloc);
    EXPECT_THROW(MediaBufferPool(~0ul / 64, 1000, statistic), std::bad_alloc);
}

}  // namespace
}  // namespace qm::writer
