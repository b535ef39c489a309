#include "web/credential_cache.hpp"

#include <gtest/gtest.h>

#include <string>

namespace qm::web {
namespace {

using Clock = CredentialCache::Clock;

const Credentials ANNA{"anna", "correct horse"};

TEST(CredentialCacheTest, KnowsCheckedCredentialsForTheirLifetimeOnly) {
    CredentialCache cache;
    const Clock::time_point start{};
    EXPECT_FALSE(cache.known(ANNA, start));
    cache.remember(ANNA, start);

    EXPECT_TRUE(cache.known(ANNA, start + CredentialCache::LIFETIME - std::chrono::nanoseconds(1)));
    // Use does not extend it: the password is checked again every LIFETIME.
    EXPECT_FALSE(cache.known(ANNA, start + CredentialCache::LIFETIME));
    EXPECT_EQ(cache.size(), 0u);
}

TEST(CredentialCacheTest, AnotherPasswordOrNameIsNotKnown) {
    CredentialCache cache;
    const Clock::time_point now{};
    cache.remember(ANNA, now);

    EXPECT_FALSE(cache.known({"anna", "correct horse "}, now));
    EXPECT_FALSE(cache.known({"anna", ""}, now));
    EXPECT_FALSE(cache.known({"bob", "correct horse"}, now));
    // The same text split elsewhere between name and password.
    EXPECT_FALSE(cache.known({"annacorrect", " horse"}, now));
    EXPECT_TRUE(cache.known(ANNA, now));
}

TEST(CredentialCacheTest, HoldsAtMostItsCapacityDroppingTheOldestFirst) {
    CredentialCache cache;
    const Clock::time_point start{};
    for (std::size_t i = 0; i < CredentialCache::CAPACITY; ++i) {
        cache.remember({"user" + std::to_string(i), "pw"}, start + std::chrono::seconds(i % 7 + 1));
    }
    cache.remember(ANNA, start);
    cache.remember({"bob", "pw"}, start + std::chrono::seconds(10));

    EXPECT_EQ(cache.size(), CredentialCache::CAPACITY);
    EXPECT_TRUE(cache.known({"bob", "pw"}, start + std::chrono::seconds(10)));
    // The oldest of all: it made room for bob.
    EXPECT_FALSE(cache.known(ANNA, start + std::chrono::seconds(10)));
}

}  // namespace
}  // namespace qm::web
