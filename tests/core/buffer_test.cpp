#include "core/buffer.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace qm::mem {
namespace {

TEST(BufferTest, StartsEmpty) {
    Buffer<16> buffer;
    EXPECT_EQ(buffer.size(), 0U);
    EXPECT_EQ(buffer.capacity(), 16U);
}

TEST(BufferTest, AppendCopiesBehindTheUsedPart) {
    Buffer<16> buffer;
    const std::array<std::uint8_t, 3> first{1, 2, 3};
    const std::array<std::uint8_t, 2> second{4, 5};
    ASSERT_TRUE(buffer.append(first.data(), first.size()));
    ASSERT_TRUE(buffer.append(second.data(), second.size()));
    EXPECT_EQ(buffer.size(), 5U);
    const std::array<std::uint8_t, 5> expected{1, 2, 3, 4, 5};
    EXPECT_EQ(std::memcmp(buffer.data(), expected.data(), expected.size()), 0);
}

TEST(BufferTest, AppendFillsExactlyToCapacityAndRefusesMore) {
    Buffer<8> buffer;
    const std::array<std::uint8_t, 9> bytes{1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_FALSE(buffer.append(bytes.data(), 9));
    EXPECT_EQ(buffer.size(), 0U);
    ASSERT_TRUE(buffer.append(bytes.data(), 6));
    EXPECT_FALSE(buffer.append(bytes.data(), 3));
    EXPECT_EQ(buffer.size(), 6U);
    EXPECT_TRUE(buffer.append(bytes.data(), 2));
    EXPECT_EQ(buffer.size(), 8U);
    EXPECT_FALSE(buffer.append(bytes.data(), 1));
    EXPECT_TRUE(buffer.append(nullptr, 0));
    EXPECT_EQ(buffer.size(), 8U);
}

TEST(BufferTest, DataBytesComeFirstThenTheUsedCount) {
    Buffer<16> buffer;
    const std::array<std::uint8_t, 5> bytes{9, 8, 7, 6, 5};
    ASSERT_TRUE(buffer.append(bytes.data(), bytes.size()));
    static_assert(sizeof(Buffer<16>) == 16 + sizeof(std::uint64_t));
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&buffer);
    EXPECT_EQ(raw, buffer.data());
    std::uint64_t count = 0;
    std::memcpy(&count, raw + 16, sizeof(count));
    EXPECT_EQ(count, 5U);
}

}  // namespace
}  // namespace qm::mem
