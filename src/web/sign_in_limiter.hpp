#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

// Slows down password guessing: an address with FAILURES failed sign-ins within WINDOW waits WAIT
// before its next try is even checked. Memory stays bounded: an address with no failure in the last
// WINDOW and no wait running is forgotten, and the table holds at most `capacity` addresses (when
// full, the one heard from longest ago makes room).
//
// Threads: any thread may call any member at any time (one mutex; a sign-in is not the packet
// path). The time is passed in, so that tests set it.

namespace qm::web {

class SignInLimiter {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t FAILURES = 5;
    static constexpr Clock::duration WINDOW = std::chrono::minutes(1);
    static constexpr Clock::duration WAIT = std::chrono::minutes(1);
    static constexpr std::size_t DEFAULT_CAPACITY = 10000;

    // REQUIRES: capacity > 0.
    explicit SignInLimiter(std::size_t capacity = DEFAULT_CAPACITY);

    // False while `address` waits: its sign-in is refused without checking the password.
    bool allowed(const std::string& address, Clock::time_point now);
    // A wrong name or password from `address`.
    void failed(const std::string& address, Clock::time_point now);
    // A right one: the address's failures are forgotten.
    void succeeded(const std::string& address);

    // The addresses held now (for tests of the bound).
    std::size_t size() const;

private:
    struct Entry {
        // The latest failures, oldest first; `count` of them are used.
        std::array<Clock::time_point, FAILURES> failures{};
        std::size_t count = 0;
        // The end of the wait; in the past when the address does not wait.
        Clock::time_point waits_until{};
        Clock::time_point last_heard{};
    };

    // Whether `entry` holds nothing that still matters at `now`.
    static bool stale(const Entry& entry, Clock::time_point now);
    // Drops the failures that are older than WINDOW at `now`.
    static void drop_old_failures(Entry& entry, Clock::time_point now);
    // Makes room for one more address. REQUIRES: m_mutex held.
    void make_room(Clock::time_point now);

    const std::size_t m_capacity;
    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Entry> m_entries;
};

}  // namespace qm::web
