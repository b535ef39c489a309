#include "core/object_allocator.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <new>

namespace qm::mem {
namespace {

// A type without a BadAlloc of its own: an exhausted pool throws std::bad_alloc.
struct Small {
    std::uint64_t value;
    std::uint32_t extra;
};

using SmallPool = ObjectAllocator<Small, 4>;

TEST(ObjectAllocatorTest, StartsWithEverySlotFreeAndTheCursorAtZero) {
    SmallPool pool;
    EXPECT_EQ(pool.capacity(), 4U);
    EXPECT_EQ(pool.free_count(), 4U);
    EXPECT_EQ(pool.cursor(), 0U);
}

TEST(ObjectAllocatorTest, SlotsAreEightByteAlignedAndHoldTheObjectThenItsFlag) {
    SmallPool pool;
    const auto first = reinterpret_cast<std::uintptr_t>(pool.allocate());
    const auto second = reinterpret_cast<std::uintptr_t>(pool.allocate());
    EXPECT_EQ(first % 8, 0U);
    // 16 bytes of Small, one flag byte, padded to the next multiple of 8.
    EXPECT_EQ(second - first, 24U);
}

TEST(ObjectAllocatorTest, AllocationZeroesTheStorageAndClearsTheFlag) {
    SmallPool pool;
    void* storage = pool.allocate();
    std::memset(storage, 0xAB, sizeof(Small));
    EXPECT_EQ(pool.free_count(), 3U);
    pool.release(storage);
    EXPECT_EQ(pool.free_count(), 4U);
    // Take the three other slots, so the next search comes back to the dirtied one.
    pool.allocate();
    pool.allocate();
    pool.allocate();
    void* again = pool.allocate();
    ASSERT_EQ(again, storage);
    const auto* bytes = static_cast<const unsigned char*>(again);
    for (std::size_t i = 0; i < sizeof(Small); ++i) {
        EXPECT_EQ(bytes[i], 0U) << "byte " << i;
    }
    EXPECT_EQ(pool.free_count(), 0U);
}

TEST(ObjectAllocatorTest, SearchIsNextFitFromTheCursor) {
    SmallPool pool;
    void* slot0 = pool.allocate();
    void* slot1 = pool.allocate();
    EXPECT_EQ(pool.cursor(), 2U);
    pool.release(slot0);
    // Slot 0 is free again, but the search starts at the cursor.
    void* slot2 = pool.allocate();
    EXPECT_EQ(static_cast<char*>(slot2) - static_cast<char*>(slot1),
              static_cast<char*>(slot1) - static_cast<char*>(slot0));
    EXPECT_EQ(pool.cursor(), 3U);
}

TEST(ObjectAllocatorTest, CursorWrapsFromTheLastSlotToTheFirst) {
    SmallPool pool;
    void* slot0 = pool.allocate();
    pool.allocate();
    pool.allocate();
    pool.release(slot0);
    pool.allocate();  // slot 3
    EXPECT_EQ(pool.cursor(), 0U);
    EXPECT_EQ(pool.allocate(), slot0);
    EXPECT_EQ(pool.cursor(), 1U);
}

TEST(ObjectAllocatorTest, FullPoolThrowsAndKeepsTheCursor) {
    SmallPool pool;
    void* slots[4];
    for (void*& slot : slots) {
        slot = pool.allocate();
    }
    pool.release(slots[1]);
    EXPECT_EQ(pool.allocate(), slots[1]);
    EXPECT_EQ(pool.cursor(), 2U);
    EXPECT_THROW(pool.allocate(), std::bad_alloc);
    EXPECT_EQ(pool.cursor(), 2U);
    EXPECT_EQ(pool.free_count(), 0U);
}

TEST(ObjectAllocatorTest, ReleasedSlotIsFoundWhereverItLiesRelativeToTheCursor) {
    SmallPool pool;
    void* slots[4];
    for (void*& slot : slots) {
        slot = pool.allocate();
    }
    ASSERT_EQ(pool.cursor(), 0U);
    // One slot free at a time: slot 2 ahead of the cursor, then slot 0 when the cursor stands at
    // 3 (found by wrapping), then slot 0 again when the cursor stands just behind it at 1 (found
    // after a whole circle).
    pool.release(slots[2]);
    EXPECT_EQ(pool.allocate(), slots[2]);
    EXPECT_EQ(pool.cursor(), 3U);
    pool.release(slots[0]);
    EXPECT_EQ(pool.allocate(), slots[0]);
    EXPECT_EQ(pool.cursor(), 1U);
    pool.release(slots[0]);
    EXPECT_EQ(pool.allocate(), slots[0]);
    EXPECT_EQ(pool.cursor(), 1U);
}

}  // namespace
}  // namespace qm::mem
