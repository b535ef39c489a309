#include "writer/open_legs.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace qm::writer {
namespace {

TEST(OpenLegsTest, CountsTheLegsOfAMinuteInItsMinuteHourAndDay) {
    OpenLegs legs;
    const OpenLegs::Registration first = legs.open("2024-01-01/10/05");
    const OpenLegs::Registration second = legs.open("2024-01-01/10/05");
    const OpenLegs::Registration other = legs.open("2024-01-01/10/06");

    EXPECT_EQ(legs.count_under("2024-01-01/10/05"), 2u);
    EXPECT_EQ(legs.count_under("2024-01-01/10/06"), 1u);
    EXPECT_EQ(legs.count_under("2024-01-01/10"), 3u);
    EXPECT_EQ(legs.count_under("2024-01-01"), 3u);
    EXPECT_EQ(legs.count_under("2024-01-01/10/07"), 0u);
    EXPECT_EQ(legs.count_under("2024-01-01/11"), 0u);
    EXPECT_EQ(legs.count_under("2024-01-02"), 0u);
}

// "2024-01-01/1" is a prefix of the hour "10" but no directory of it.
TEST(OpenLegsTest, APrefixOfANameIsNoDirectoryOfIt) {
    OpenLegs legs;
    const OpenLegs::Registration leg = legs.open("2024-01-01/10/05");

    EXPECT_EQ(legs.count_under("2024-01-01/1"), 0u);
    EXPECT_EQ(legs.count_under("2024-01-01/10/0"), 0u);
    EXPECT_EQ(legs.count_under("2024-01-0"), 0u);
}

TEST(OpenLegsTest, ALegStopsCountingWhenItsRegistrationGoes) {
    OpenLegs legs;
    OpenLegs::Registration first = legs.open("2024-01-01/10/05");
    {
        const OpenLegs::Registration second = legs.open("2024-01-01/10/05");
        EXPECT_EQ(legs.count_under("2024-01-01"), 2u);
    }
    EXPECT_EQ(legs.count_under("2024-01-01"), 1u);
    first.reset();
    EXPECT_EQ(legs.count_under("2024-01-01"), 0u);
    first.reset();
    EXPECT_EQ(legs.count_under("2024-01-01"), 0u);
}

TEST(OpenLegsTest, AMovedRegistrationCountsOnce) {
    OpenLegs legs;
    OpenLegs::Registration moved = legs.open("2024-01-01/10/05");
    OpenLegs::Registration target(std::move(moved));
    EXPECT_EQ(legs.count_under("2024-01-01"), 1u);
    moved.reset();
    EXPECT_EQ(legs.count_under("2024-01-01"), 1u);

    OpenLegs::Registration assigned = legs.open("2024-01-01/10/06");
    assigned = std::move(target);
    EXPECT_EQ(legs.count_under("2024-01-01/10/06"), 0u);
    EXPECT_EQ(legs.count_under("2024-01-01/10/05"), 1u);
    assigned = OpenLegs::Registration();
    EXPECT_EQ(legs.count_under("2024-01-01"), 0u);
}

// Legs open and close on other threads while the cleanup asks: every count it sees is whole.
TEST(OpenLegsTest, LegsOpenAndCloseOnManyThreads) {
    OpenLegs legs;
    const OpenLegs::Registration kept = legs.open("2024-01-01/00/00");
    constexpr int THREADS = 4;
    constexpr int LEGS = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&legs, t] {
            const std::string minute = "2024-01-01/0" + std::to_string(t) + "/00";
            for (int i = 0; i < LEGS; ++i) {
                const OpenLegs::Registration leg = legs.open(minute);
            }
        });
    }
    for (int i = 0; i < LEGS; ++i) {
        const std::size_t count = legs.count_under("2024-01-01");
        ASSERT_GE(count, 1u);
        ASSERT_LE(count, 1u + THREADS);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(legs.count_under("2024-01-01"), 1u);
}

}  // namespace
}  // namespace qm::writer
