#include "media/packet_buffer.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "core/rc_ptr.hpp"

namespace qm::media {
namespace {

constexpr std::size_t SLOTS = PacketBuffer::POOL_SIZE;
// One PacketBuffer (1400 bytes) and its free flag, rounded up to a multiple of 8.
constexpr std::uintptr_t SLOT_SIZE = 1408;

using Pointer = rc_ptr<PacketBuffer>;

// Every test starts and ends with the whole pool free; the cursor, though, is wherever the tests
// before left it.
class PacketBufferTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(PacketBuffer::allocator.free_count(), SLOTS); }
    void TearDown() override { EXPECT_EQ(PacketBuffer::allocator.free_count(), SLOTS); }

    // Takes every slot; the i-th buffer lies in slot (start cursor + i) modulo SLOTS.
    static std::vector<Pointer> take_all() {
        std::vector<Pointer> buffers;
        buffers.reserve(SLOTS);
        for (std::size_t i = 0; i < SLOTS; ++i) {
            buffers.emplace_back(new PacketBuffer());
        }
        return buffers;
    }

    static std::uintptr_t address(const Pointer& buffer) {
        return reinterpret_cast<std::uintptr_t>(buffer.get());
    }
};

TEST_F(PacketBufferTest, PoolHasOneHundredFiftyThousandSlotsOfOnePacketEach) {
    EXPECT_EQ(PacketBuffer::allocator.capacity(), 150000U);
    EXPECT_EQ(PacketBuffer::capacity(), 1376U);
    EXPECT_EQ(sizeof(PacketBuffer), 1400U);
}

TEST_F(PacketBufferTest, BadAllocIsABadAllocWithItsOwnText) {
    static_assert(std::is_base_of_v<std::bad_alloc, PacketBuffer::BadAlloc>);
    const PacketBuffer::BadAlloc error;
    EXPECT_EQ(std::string(error.what()), "Cannot allocate memory for PacketBuffer");
}

TEST_F(PacketBufferTest, FreshBufferIsEmptyUnownedAndZeroed) {
    // Dirty every slot once, so that a fresh buffer shows the pool's zeroing, not a new page's.
    {
        std::vector<Pointer> buffers = take_all();
        for (Pointer& buffer : buffers) {
            std::memset(buffer->data(), 0xEE, PacketBuffer::capacity());
        }
    }
    auto* buffer = new PacketBuffer();
    EXPECT_EQ(buffer->size(), 0U);
    EXPECT_EQ(buffer->reference_count(), 0);
    const std::array<std::uint8_t, PacketBuffer::capacity()> zeroes{};
    EXPECT_EQ(std::memcmp(buffer->data(), zeroes.data(), zeroes.size()), 0);
    EXPECT_EQ(PacketBuffer::allocator.free_count(), SLOTS - 1);

    Pointer pointer(buffer);
    EXPECT_EQ(buffer->reference_count(), 1);
    pointer = nullptr;
    EXPECT_EQ(PacketBuffer::allocator.free_count(), SLOTS);
}

TEST_F(PacketBufferTest, HoldsADatagramOfAtMost1376Bytes) {
    Pointer buffer(new PacketBuffer());
    std::vector<std::uint8_t> datagram(1377, 0x5A);
    EXPECT_FALSE(buffer->append(datagram.data(), 1377));
    EXPECT_EQ(buffer->size(), 0U);
    EXPECT_TRUE(buffer->append(datagram.data(), 1376));
    EXPECT_EQ(buffer->size(), 1376U);
    EXPECT_EQ(std::memcmp(buffer->data(), datagram.data(), 1376), 0);
}

TEST_F(PacketBufferTest, ExhaustedPoolThrowsBadAllocAndKeepsTheCursor) {
    std::vector<Pointer> buffers = take_all();
    const std::uint64_t cursor = PacketBuffer::allocator.cursor();
    EXPECT_EQ(PacketBuffer::allocator.free_count(), 0U);
    EXPECT_THROW(new PacketBuffer(), PacketBuffer::BadAlloc);
    EXPECT_EQ(PacketBuffer::allocator.cursor(), cursor);
    EXPECT_THROW(new PacketBuffer(), PacketBuffer::BadAlloc);
    EXPECT_EQ(PacketBuffer::allocator.cursor(), cursor);
}

TEST_F(PacketBufferTest, OneReleasedSlotIsFoundWhereverItLiesRelativeToTheCursor) {
    const std::uint64_t start = PacketBuffer::allocator.cursor();
    std::vector<Pointer> buffers = take_all();
    ASSERT_EQ(PacketBuffer::allocator.cursor(), start);  // a whole circle

    // Ahead of the cursor.
    const std::size_t ahead = 1000;
    const std::uintptr_t ahead_address = address(buffers[ahead]);
    buffers[ahead] = nullptr;
    buffers[ahead] = new PacketBuffer();
    EXPECT_EQ(address(buffers[ahead]), ahead_address);
    EXPECT_EQ(PacketBuffer::allocator.cursor(), (start + ahead + 1) % SLOTS);

    // Behind it: the search wraps and comes round to it.
    const std::size_t behind = 10;
    const std::uintptr_t behind_address = address(buffers[behind]);
    buffers[behind] = nullptr;
    buffers[behind] = new PacketBuffer();
    EXPECT_EQ(address(buffers[behind]), behind_address);
    EXPECT_EQ(PacketBuffer::allocator.cursor(), (start + behind + 1) % SLOTS);

    // Exactly at it.
    const std::size_t at = behind + 1;
    const std::uintptr_t at_address = address(buffers[at]);
    buffers[at] = nullptr;
    buffers[at] = new PacketBuffer();
    EXPECT_EQ(address(buffers[at]), at_address);
    EXPECT_THROW(new PacketBuffer(), PacketBuffer::BadAlloc);
}

TEST_F(PacketBufferTest, CursorWrapsFromTheLastSlotToTheFirst) {
    while (PacketBuffer::allocator.cursor() != SLOTS - 1) {
        Pointer passing(new PacketBuffer());
    }
    Pointer last(new PacketBuffer());
    EXPECT_EQ(PacketBuffer::allocator.cursor(), 0U);
    Pointer first(new PacketBuffer());
    EXPECT_EQ(PacketBuffer::allocator.cursor(), 1U);
    EXPECT_EQ(address(last) - address(first), (SLOTS - 1) * SLOT_SIZE);
    EXPECT_EQ(address(first) % 8, 0U);
}

}  // namespace
}  // namespace qm::media
