#include "writer/media_buffer_pool.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "media/packet_header.hpp"

namespace qm::writer {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::string allocated_text(std::uint64_t count, std::uint64_t slot, std::uint64_t media) {
    return "MEDIA_BUFFER_POOL: allocated (" + std::to_string(count) + ") buffers of (" +
           std::to_string(slot) + ") bytes each including (" + std::to_string(media) +
           ") bytes of media part";
}

const std::string RELEASE_ERROR_TEXT =
    "MEDIA_BUFFER_POOL: unexpected buffer release error, this must not happen - ask a developer "
    "to check the logic";

// A session that counts its destructions, to see who lets go of it.
class TrackedSession : public media::Session {
public:
    explicit TrackedSession(int& destroyed)
        : Session(ZOMBIE, media::PacketHeader{}, 0), m_destroyed(destroyed) {}
    ~TrackedSession() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

class MediaBufferPoolTest : public ::testing::Test {
protected:
    // Every counter of the record at once: elements, acquire errors, release errors.
    static std::vector<std::uint64_t> counters(const MediaBufferPoolStatistic& record) {
        return {record.buffer_pool_elements.load(), record.buffer_pool_acquire_errors.load(),
                record.buffer_pool_release_errors.load()};
    }

    test::LogCapture capture;
    MediaBufferPoolStatistic statistic;
};

// The recorder's defaults, with the real 256 MB block.
TEST_F(MediaBufferPoolTest, DefaultSizesGiveSlotsOf64128BytesWithMediaPartsOf64088) {
    MediaBufferPool pool(4000, 64000, statistic);

    EXPECT_EQ(pool.slot_size(), 64128u);
    EXPECT_EQ(pool.block_size(), 256'512'128u);
    EXPECT_EQ(pool.capacity(), 4000u);
    EXPECT_EQ(pool.free_count(), 4000u);
    EXPECT_THAT(counters(statistic), ElementsAre(4000u, 0u, 0u));
    const std::string text = allocated_text(4000, 64128, 64088);
    EXPECT_THAT(capture.texts(log::Level::SYSTEM), ElementsAre(text));
    EXPECT_THAT(capture.lines(), ElementsAre(AllOf(StartsWith("SYSTEM  | media_buffer_pool.cpp:"),
                                                   EndsWith(" | " + text))));

    // Every buffer, in slot order, back to back.
    MediaBuffer* first = pool.acquire();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % 128, 0u);
    for (std::uint64_t i = 0; i < 4000; ++i) {
        MediaBuffer* buffer = i == 0 ? first : pool.acquire();
        ASSERT_NE(buffer, nullptr) << i;
        ASSERT_EQ(reinterpret_cast<std::uint8_t*>(buffer),
                  reinterpret_cast<std::uint8_t*>(first) + i * 64128)
            << i;
        ASSERT_EQ(buffer->data, reinterpret_cast<std::uint8_t*>(buffer) + 40) << i;
        ASSERT_EQ(buffer->capacity, 64088u) << i;
        ASSERT_EQ(buffer->size, 0u) << i;
    }
    EXPECT_EQ(pool.acquire(), nullptr);
    EXPECT_THAT(counters(statistic), ElementsAre(0u, 1u, 0u));
}

// Slot = (media size + 40) rounded up to 128; block = slots + 128 spare bytes.
TEST_F(MediaBufferPoolTest, SlotSizeIsMediaSizePlusTheHeaderRoundedUpTo128) {
    struct Case {
        unsigned long media_size;
        std::uint64_t slot;
    };
    const Case cases[] = {{0, 128},       {1, 128},       {87, 128},     {88, 128},
                          {89, 256},      {216, 256},     {217, 384},    {600, 640},
                          {64000, 64128}, {64088, 64128}, {64089, 64256}};
    for (const Case& c : cases) {
        MediaBufferPoolStatistic record;
        MediaBufferPool pool(3, c.media_size, record);

        EXPECT_EQ(pool.slot_size(), c.slot) << c.media_size;
        EXPECT_EQ(pool.block_size(), 3 * c.slot + 128) << c.media_size;
        EXPECT_EQ(pool.capacity(), 3u) << c.media_size;
        EXPECT_THAT(counters(record), ElementsAre(3u, 0u, 0u)) << c.media_size;
        MediaBuffer* buffer = pool.acquire();
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(buffer->capacity, c.slot - 40) << c.media_size;
        EXPECT_EQ(capture.count(allocated_text(3, c.slot, c.slot - 40)), 1u) << c.media_size;
        capture.clear();
    }
}

TEST_F(MediaBufferPoolTest, MediaSizeThatFillsASlotExactlyIsNotRoundedFurther) {
    MediaBufferPool pool(3, 88, statistic);

    EXPECT_EQ(pool.slot_size(), 128u);
    EXPECT_EQ(pool.block_size(), 3u * 128u + 128u);
    EXPECT_THAT(capture.texts(), ElementsAre(allocated_text(3, 128, 88)));
}

TEST_F(MediaBufferPoolTest, MediaSizeZeroGivesSlotsOf128BytesWith88ByteMediaParts) {
    MediaBufferPool pool(2, 0, statistic);

    EXPECT_EQ(pool.slot_size(), 128u);
    EXPECT_THAT(capture.texts(), ElementsAre(allocated_text(2, 128, 88)));
    MediaBuffer* buffer = pool.acquire();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->capacity, 88u);
}

TEST_F(MediaBufferPoolTest, SlotsAreAlignedBackToBackAndHoldTheirMediaRightBehindTheHeader) {
    constexpr std::uint64_t COUNT = 5;
    MediaBufferPool pool(COUNT, 200, statistic);
    ASSERT_EQ(pool.slot_size(), 256u);
    std::vector<MediaBuffer*> buffers;
    for (std::uint64_t i = 0; i < COUNT; ++i) {
        buffers.push_back(pool.acquire());
        ASSERT_NE(buffers.back(), nullptr);
    }

    for (std::uint64_t i = 0; i < COUNT; ++i) {
        auto* slot = reinterpret_cast<std::uint8_t*>(buffers[i]);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(slot) % 128, 0u) << i;
        // The free list hands them out in slot order.
        EXPECT_EQ(slot, reinterpret_cast<std::uint8_t*>(buffers[0]) + i * 256) << i;
        EXPECT_EQ(buffers[i]->data, slot + 40) << i;
        EXPECT_EQ(buffers[i]->capacity, 216u) << i;
        EXPECT_EQ(buffers[i]->size, 0u) << i;
        EXPECT_FALSE(buffers[i]->session) << i;
    }
    // Filling every media part to the last byte (AddressSanitizer watches the block's end)
    // leaves every other buffer untouched.
    for (std::uint64_t i = 0; i < COUNT; ++i) {
        std::memset(buffers[i]->data, static_cast<int>(0xA0 + i), buffers[i]->capacity);
    }
    for (std::uint64_t i = 0; i < COUNT; ++i) {
        EXPECT_EQ(buffers[i]->data, reinterpret_cast<std::uint8_t*>(buffers[i]) + 40) << i;
        EXPECT_EQ(buffers[i]->capacity, 216u) << i;
        EXPECT_EQ(buffers[i]->size, 0u) << i;
        EXPECT_FALSE(buffers[i]->session) << i;
        EXPECT_EQ(std::count(buffers[i]->data, buffers[i]->data + 216, 0xA0 + i), 216) << i;
    }
}

// Sizes whose slots are 128 bytes, where a block that happens to come aligned would have room for
// one buffer more, and a larger one.
TEST_F(MediaBufferPoolTest, AcquiringOneMoreThanTheCountReturnsNullAndCountsOneError) {
    for (const unsigned long media_size : {0ul, 88ul, 1000ul}) {
        MediaBufferPoolStatistic record;
        MediaBufferPool pool(3, media_size, record);
        for (int i = 0; i < 3; ++i) {
            EXPECT_NE(pool.acquire(), nullptr) << media_size;
        }
        EXPECT_THAT(counters(record), ElementsAre(0u, 0u, 0u)) << media_size;

        EXPECT_EQ(pool.acquire(), nullptr) << media_size;

        EXPECT_THAT(counters(record), ElementsAre(0u, 1u, 0u)) << media_size;
        EXPECT_EQ(pool.free_count(), 0u);
        EXPECT_EQ(pool.acquire(), nullptr) << media_size;
        EXPECT_THAT(counters(record), ElementsAre(0u, 2u, 0u)) << media_size;
    }
    // Only the three SYSTEM lines: an empty pool is the caller's to report.
    EXPECT_THAT(capture.texts(log::Level::ERROR), IsEmpty());
    EXPECT_EQ(capture.texts().size(), 3u);
}

// A buffer released twice: the second release finds the pool holding all its buffers.
TEST_F(MediaBufferPoolTest, ReleaseIntoAFullPoolReturnsFalseLogsAndCountsOneError) {
    MediaBufferPool pool(2, 88, statistic);
    MediaBuffer* buffer = pool.acquire();
    ASSERT_NE(buffer, nullptr);
    ASSERT_TRUE(pool.release(buffer));
    ASSERT_THAT(counters(statistic), ElementsAre(2u, 0u, 0u));
    capture.clear();
    buffer->size = 17;

    EXPECT_FALSE(pool.release(buffer));

    EXPECT_EQ(buffer->size, 0u) << "emptied all the same";
    EXPECT_THAT(counters(statistic), ElementsAre(2u, 0u, 1u));
    EXPECT_EQ(pool.free_count(), 2u);
    EXPECT_THAT(capture.texts(), ElementsAre(RELEASE_ERROR_TEXT));
    EXPECT_THAT(capture.lines(), ElementsAre(AllOf(StartsWith("ERROR   | media_buffer_pool.cpp:"),
                                                   EndsWith(" | " + RELEASE_ERROR_TEXT))));
    // The ring was not touched: the two buffers come out once each, then none.
    MediaBuffer* first = pool.acquire();
    MediaBuffer* second = pool.acquire();
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(pool.acquire(), nullptr);
    EXPECT_THAT(counters(statistic), ElementsAre(0u, 1u, 1u));
}

TEST_F(MediaBufferPoolTest, ReleaseEmptiesTheBufferButLeavesItsSession) {
    int destroyed = 0;
    MediaBufferPool pool(1, 88, statistic);
    MediaBuffer* buffer = pool.acquire();
    ASSERT_NE(buffer, nullptr);
    auto* session = new TrackedSession(destroyed);
    buffer->session = session;
    buffer->size = 40;

    ASSERT_TRUE(pool.release(buffer));

    EXPECT_EQ(buffer->size, 0u);
    EXPECT_EQ(buffer->session.get(), session);
    EXPECT_EQ(session->reference_count(), 1);
    EXPECT_EQ(destroyed, 0);
    EXPECT_THAT(counters(statistic), ElementsAre(1u, 0u, 0u));
}

// Acquire hands the header over as the last release left it: it does not clear `size` (release
// already did) nor `session`. The size is changed while the buffer is in the free list only to
// make that visible.
TEST_F(MediaBufferPoolTest, AcquireLeavesSizeAndSessionAsTheyAre) {
    int destroyed = 0;
    MediaBufferPool pool(1, 88, statistic);
    MediaBuffer* buffer = pool.acquire();
    ASSERT_NE(buffer, nullptr);
    auto* session = new TrackedSession(destroyed);
    buffer->session = session;
    ASSERT_TRUE(pool.release(buffer));
    buffer->size = 5;

    MediaBuffer* again = pool.acquire();

    ASSERT_EQ(again, buffer);
    EXPECT_EQ(again->size, 5u);
    EXPECT_EQ(again->session.get(), session);
    EXPECT_EQ(session->reference_count(), 1);
    EXPECT_THAT(counters(statistic), ElementsAre(0u, 0u, 0u));
}

TEST_F(MediaBufferPoolTest, ElementsCounterFollowsEveryAcquireAndRelease) {
    MediaBufferPool pool(3, 88, statistic);
    EXPECT_THAT(counters(statistic), ElementsAre(3u, 0u, 0u));

    MediaBuffer* a = pool.acquire();
    EXPECT_THAT(counters(statistic), ElementsAre(2u, 0u, 0u));
    MediaBuffer* b = pool.acquire();
    EXPECT_THAT(counters(statistic), ElementsAre(1u, 0u, 0u));
    ASSERT_TRUE(pool.release(a));
    EXPECT_THAT(counters(statistic), ElementsAre(2u, 0u, 0u));
    MediaBuffer* c = pool.acquire();
    MediaBuffer* d = pool.acquire();
    EXPECT_THAT(counters(statistic), ElementsAre(0u, 0u, 0u));
    // The ring is first in, first out: `a` went back behind the third buffer.
    EXPECT_NE(c, a);
    EXPECT_EQ(d, a);
    ASSERT_TRUE(pool.release(b));
    ASSERT_TRUE(pool.release(c));
    ASSERT_TRUE(pool.release(d));
    EXPECT_THAT(counters(statistic), ElementsAre(3u, 0u, 0u));
    EXPECT_EQ(pool.free_count(), 3u);
}

// The session thread's way back: the buffer is emptied, counted free and handed out again before
// any buffer of the ring.
TEST_F(MediaBufferPoolTest, GivenBackBufferIsFreeAndComesOutFirst) {
    MediaBufferPool pool(3, 88, statistic);
    MediaBuffer* a = pool.acquire();
    MediaBuffer* b = pool.acquire();
    ASSERT_NE(b, nullptr);
    a->size = 30;

    ASSERT_TRUE(pool.give_back(a));

    EXPECT_EQ(a->size, 0u);
    EXPECT_EQ(pool.free_count(), 2u);
    EXPECT_THAT(counters(statistic), ElementsAre(2u, 0u, 0u));
    ASSERT_TRUE(pool.release(b));
    EXPECT_EQ(pool.free_count(), 3u);
    EXPECT_THAT(counters(statistic), ElementsAre(3u, 0u, 0u));
    EXPECT_EQ(pool.acquire(), a);
    EXPECT_THAT(counters(statistic), ElementsAre(2u, 0u, 0u));
    MediaBuffer* third = pool.acquire();
    EXPECT_NE(third, a);
    EXPECT_NE(third, b);
    EXPECT_EQ(pool.acquire(), b);
    EXPECT_EQ(pool.acquire(), nullptr);
    EXPECT_THAT(counters(statistic), ElementsAre(0u, 1u, 0u));
    EXPECT_THAT(capture.texts(log::Level::ERROR), IsEmpty());
}

// A buffer given back twice: the second time the pool holds all its buffers. The release errors
// counter is the media writer thread's, so this is logged only.
TEST_F(MediaBufferPoolTest, GivingBackIntoAFullPoolReturnsFalseAndLogs) {
    MediaBufferPool pool(1, 88, statistic);
    MediaBuffer* buffer = pool.acquire();
    ASSERT_TRUE(pool.give_back(buffer));
    capture.clear();

    EXPECT_FALSE(pool.give_back(buffer));

    EXPECT_EQ(pool.free_count(), 1u);
    EXPECT_THAT(counters(statistic), ElementsAre(1u, 0u, 0u));
    EXPECT_THAT(capture.texts(), ElementsAre(RELEASE_ERROR_TEXT));
    EXPECT_EQ(pool.acquire(), buffer);
    EXPECT_EQ(pool.acquire(), nullptr);
}

// The headers' counted references go with the pool: those of buffers in the free list, of a
// buffer still out of it, and a stale one in a buffer filled anew. A session that somebody else
// still holds only loses the pool's references.
TEST_F(MediaBufferPoolTest, DestroyingThePoolDropsTheSessionReferencesOfEveryHeader) {
    int destroyed = 0;
    rc_ptr<media::Session> kept = new TrackedSession(destroyed);
    {
        MediaBufferPool pool(4, 88, statistic);
        MediaBuffer* a = pool.acquire();
        MediaBuffer* b = pool.acquire();
        MediaBuffer* c = pool.acquire();
        a->session = new TrackedSession(destroyed);
        b->session = kept;
        c->session = new TrackedSession(destroyed);
        ASSERT_TRUE(pool.release(a));
        ASSERT_TRUE(pool.release(b));
        EXPECT_EQ(kept->reference_count(), 2);
        // `c` stays out of the pool. The fourth buffer and then `a` are taken again; `a` keeps its
        // old session until it is filled.
        MediaBuffer* d = pool.acquire();
        ASSERT_EQ(pool.acquire(), a);
        d->session = kept;
        EXPECT_EQ(kept->reference_count(), 3);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(kept->reference_count(), 1);
    kept = nullptr;
    EXPECT_EQ(destroyed, 3);
}

// The resident memory of this process, in bytes.
std::uint64_t resident_bytes() {
    std::ifstream statm("/proc/self/statm");
    std::uint64_t size = 0;
    std::uint64_t pages = 0;
    statm >> size >> pages;
    return pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

TEST_F(MediaBufferPoolTest, EveryPageIsResidentAndZeroFromTheStart) {
    const std::uint64_t before = resident_bytes();
    MediaBufferPool pool(1000, 64000, statistic);
    const std::uint64_t grown = resident_bytes() - before;

    // 1000 slots of 64128 bytes: all of them were touched by the construction.
    EXPECT_GE(grown, 1000u * 64128u - 1024u * 1024u);
    MediaBuffer* buffer = pool.acquire();
    ASSERT_NE(buffer, nullptr);
    EXPECT_TRUE(std::all_of(buffer->data, buffer->data + buffer->capacity,
                            [](std::uint8_t byte) { return byte == 0; }));
    EXPECT_TRUE(pool.release(buffer));
}

TEST_F(MediaBufferPoolTest, PoolWithoutBuffersCannotBeBuilt) {
    EXPECT_THROW(MediaBufferPool(0, 64000, statistic), std::bad_alloc);

    EXPECT_THAT(capture.texts(), IsEmpty());
    EXPECT_THAT(counters(statistic), ElementsAre(0u, 0u, 0u));
}

TEST_F(MediaBufferPoolTest, SizesBeyondTheAddressSpaceCannotBeBuilt) {
    // media size + 40 overflows.
    EXPECT_THROW(MediaBufferPool(2, ~0ul - 10, statistic), std::bad_alloc);
    // media size + 40 is the largest value, and rounding it up to 128 overflows.
    EXPECT_THROW(MediaBufferPool(2, ~0ul - 40, statistic), std::bad_alloc);
    // slot size x count overflows.
    EXPECT_THROW(MediaBufferPool(~0ul / 64, 1000, statistic), std::bad_alloc);
    // slot size x count fits exactly below 2^64, the 128 spare bytes do not.
    EXPECT_THROW(MediaBufferPool(~0ul / 128, 0, statistic), std::bad_alloc);

    EXPECT_THAT(capture.texts(), IsEmpty());
    EXPECT_THAT(counters(statistic), ElementsAre(0u, 0u, 0u));
}

TEST_F(MediaBufferPoolTest, PoolBuiltWithoutARecordCountsIntoItsOwn) {
    MediaBufferPool pool(2, 88);
    ASSERT_NE(pool.acquire(), nullptr);
    ASSERT_NE(pool.acquire(), nullptr);

    EXPECT_EQ(pool.acquire(), nullptr);

    EXPECT_THAT(counters(pool.statistic()), ElementsAre(0u, 1u, 0u));
    EXPECT_THAT(counters(statistic), ElementsAre(0u, 0u, 0u));
    EXPECT_THAT(capture.texts(), ElementsAre(allocated_text(2, 128, 88)));
}

}  // namespace
}  // namespace qm::writer
