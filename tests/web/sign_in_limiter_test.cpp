#include "web/sign_in_limiter.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace qm::web {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = SignInLimiter::Clock;

const Clock::time_point START = Clock::time_point() + std::chrono::hours(1000);

// `count` failures from `address`, one a second from `from`.
void fail(SignInLimiter& limiter, const std::string& address, int count, Clock::time_point from) {
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(limiter.allowed(address, from + seconds(i))) << "try " << i + 1;
        limiter.failed(address, from + seconds(i));
    }
}

TEST(SignInLimiterTest, TheSixthTryInAMinuteWaitsAMinute) {
    SignInLimiter limiter;
    fail(limiter, "192.0.2.7", 5, START);
    // The fifth failure was at START + 4 s.
    EXPECT_FALSE(limiter.allowed("192.0.2.7", START + seconds(5)));
    EXPECT_FALSE(limiter.allowed("192.0.2.7", START + seconds(63)));
    EXPECT_TRUE(limiter.allowed("192.0.2.7", START + seconds(64)));
    EXPECT_TRUE(limiter.allowed("192.0.2.8", START + seconds(5)));
}

TEST(SignInLimiterTest, FailuresSpreadOverMoreThanAMinuteDoNotWait) {
    SignInLimiter limiter;
    fail(limiter, "192.0.2.7", 4, START);
    // The failure at START is a minute old by now: four in the last minute.
    limiter.failed("192.0.2.7", START + seconds(60));
    EXPECT_TRUE(limiter.allowed("192.0.2.7", START + milliseconds(60500)));
    // Those at 1, 2, 3 and 60 s are within a minute of this one.
    limiter.failed("192.0.2.7", START + milliseconds(60500));
    EXPECT_FALSE(limiter.allowed("192.0.2.7", START + seconds(61)));
}

TEST(SignInLimiterTest, AfterTheWaitTheAddressHasFiveTriesAgain) {
    SignInLimiter limiter;
    fail(limiter, "192.0.2.7", 5, START);
    const Clock::time_point later = START + seconds(64);
    fail(limiter, "192.0.2.7", 4, later);
    EXPECT_TRUE(limiter.allowed("192.0.2.7", later + seconds(4)));
    limiter.failed("192.0.2.7", later + seconds(4));
    EXPECT_FALSE(limiter.allowed("192.0.2.7", later + seconds(5)));
}

TEST(SignInLimiterTest, ASuccessForgetsTheFailures) {
    SignInLimiter limiter;
    fail(limiter, "192.0.2.7", 4, START);
    limiter.succeeded("192.0.2.7");
    fail(limiter, "192.0.2.7", 4, START + seconds(4));
    EXPECT_TRUE(limiter.allowed("192.0.2.7", START + seconds(8)));
}

TEST(SignInLimiterTest, AddressesOlderThanAMinuteAreForgottenWhenRoomIsNeeded) {
    SignInLimiter limiter(2);
    limiter.failed("192.0.2.1", START);
    limiter.failed("192.0.2.2", START);
    EXPECT_EQ(limiter.size(), 2u);
    limiter.failed("192.0.2.3", START + seconds(60));
    EXPECT_EQ(limiter.size(), 1u);
}

TEST(SignInLimiterTest, AFullTableForgetsTheAddressHeardFromLongestAgo) {
    SignInLimiter limiter(2);
    fail(limiter, "192.0.2.1", 5, START);
    limiter.failed("192.0.2.2", START + seconds(5));
    limiter.failed("192.0.2.3", START + seconds(6));
    EXPECT_EQ(limiter.size(), 2u);
    EXPECT_TRUE(limiter.allowed("192.0.2.1", START + seconds(7)));
}

TEST(SignInLimiterTest, FailuresFromManyThreadsAreAllCounted) {
    SignInLimiter limiter;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < SignInLimiter::FAILURES; ++i) {
        threads.emplace_back([&limiter] { limiter.failed("192.0.2.7", START); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(limiter.allowed("192.0.2.7", START + seconds(1)));
}

}  // namespace
}  // namespace qm::web
