#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "web/session_cookie.hpp"
#include "web/session_store.hpp"

namespace qm::web {
namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;
using Clock = SessionStore::Clock;

const Clock::time_point START = Clock::time_point() + std::chrono::hours(1000);

TEST(SessionStoreTest, ATokenIs64HexDigitsAndNamesItsUser) {
    SessionStore sessions;
    const std::string anna = sessions.open("anna", START);
    const std::string ben = sessions.open("ben", START);
    EXPECT_EQ(anna.size(), 64u);
    EXPECT_TRUE(std::all_of(anna.begin(), anna.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    })) << anna;
    EXPECT_NE(anna, ben);
    EXPECT_EQ(sessions.user(anna, START), "anna");
    EXPECT_EQ(sessions.user(ben, START), "ben");
    EXPECT_EQ(sessions.size(), 2u);
}

TEST(SessionStoreTest, AnUnknownOrClosedTokenNamesNobody) {
    SessionStore sessions;
    const std::string token = sessions.open("anna", START);
    EXPECT_EQ(sessions.user("", START), std::nullopt);
    EXPECT_EQ(sessions.user(std::string(64, '0'), START), std::nullopt);
    // A token that differs in its last digit.
    std::string other = token;
    other.back() = other.back() == '0' ? '1' : '0';
    EXPECT_EQ(sessions.user(other, START), std::nullopt);
    sessions.close(token);
    EXPECT_EQ(sessions.user(token, START), std::nullopt);
    EXPECT_EQ(sessions.size(), 0u);
    sessions.close(token);
}

TEST(SessionStoreTest, ASessionEndsWhenIdleAndUseKeepsItAlive) {
    SessionStore sessions;
    const std::string token = sessions.open("anna", START);
    const Clock::time_point used = START + SessionStore::IDLE - nanoseconds(1);
    EXPECT_EQ(sessions.user(token, used), "anna");
    // Idle counts from the last use, not from the sign-in.
    EXPECT_EQ(sessions.user(token, used + SessionStore::IDLE - nanoseconds(1)), "anna");
    const Clock::time_point last = used + SessionStore::IDLE - nanoseconds(1);
    EXPECT_EQ(sessions.user(token, last + SessionStore::IDLE), std::nullopt);
    EXPECT_EQ(sessions.size(), 0u);
    // Gone for good, even at an earlier time.
    EXPECT_EQ(sessions.user(token, last), std::nullopt);
}

TEST(SessionStoreTest, WhenFullTheSessionUsedLongestAgoMakesRoom) {
    SessionStore sessions(3);
    const std::string first = sessions.open("a", START);
    const std::string second = sessions.open("b", START + seconds(1));
    const std::string third = sessions.open("c", START + seconds(2));
    // The first is used again, so the second is now the one used longest ago.
    EXPECT_EQ(sessions.user(first, START + seconds(3)), "a");
    const std::string fourth = sessions.open("d", START + seconds(4));
    EXPECT_EQ(sessions.size(), 3u);
    EXPECT_EQ(sessions.user(second, START + seconds(5)), std::nullopt);
    EXPECT_EQ(sessions.user(first, START + seconds(5)), "a");
    EXPECT_EQ(sessions.user(third, START + seconds(5)), "c");
    EXPECT_EQ(sessions.user(fourth, START + seconds(5)), "d");
}

TEST(SessionStoreTest, WhenFullIdleSessionsGoFirst) {
    SessionStore sessions(3);
    const std::string idle_1 = sessions.open("a", START);
    const std::string idle_2 = sessions.open("b", START);
    const std::string used = sessions.open("c", START);
    const Clock::time_point later = START + SessionStore::IDLE;
    EXPECT_EQ(sessions.user(used, later - seconds(1)), "c");
    const std::string fresh = sessions.open("d", later);
    EXPECT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions.user(used, later), "c");
    EXPECT_EQ(sessions.user(fresh, later), "d");
}

TEST(SessionStoreTest, ThreadsOpenAndLookUpAtOnce) {
    SessionStore sessions(10000);
    constexpr int THREADS = 4;
    constexpr int EACH = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&sessions, t] {
            const std::string user = "user" + std::to_string(t);
            for (int i = 0; i < EACH; ++i) {
                const std::string token = sessions.open(user, START);
                EXPECT_EQ(sessions.user(token, START), user);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sessions.size(), static_cast<std::size_t>(THREADS * EACH));
}

TEST(SessionCookieTest, TheCookieIsHttpOnlyStrictForTheWholeSiteAndSecureUnderTls) {
    EXPECT_EQ(session_cookie("0123abcd", false),
              "quillmar_session=0123abcd; HttpOnly; SameSite=Strict; Path=/");
    EXPECT_EQ(session_cookie("0123abcd", true),
              "quillmar_session=0123abcd; HttpOnly; SameSite=Strict; Path=/; Secure");
    EXPECT_EQ(expired_session_cookie(false),
              "quillmar_session=; HttpOnly; SameSite=Strict; Path=/; Max-Age=0");
    EXPECT_EQ(expired_session_cookie(true),
              "quillmar_session=; HttpOnly; SameSite=Strict; Path=/; Max-Age=0; Secure");
}

TEST(SessionCookieTest, TheTokenIsReadFromAmongOtherCookies) {
    EXPECT_EQ(session_token("quillmar_session=abc"), "abc");
    EXPECT_EQ(session_token("a=1; quillmar_session=abc; b=2"), "abc");
    EXPECT_EQ(session_token("a=1;quillmar_session=abc"), "abc");
    EXPECT_EQ(session_token(""), std::nullopt);
    EXPECT_EQ(session_token("quillmar_session="), std::nullopt);
    EXPECT_EQ(session_token("xquillmar_session=abc"), std::nullopt);
    EXPECT_EQ(session_token("quillmar_sessionx=abc"), std::nullopt);
    EXPECT_EQ(session_token("a=quillmar_session=abc"), std::nullopt);
}

}  // namespace
}  // namespace qm::web
