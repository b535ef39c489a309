#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

// The signed-in browsers of `quillmar serve`: a browser that signed in by the form holds a random
// token in a cookie, and its requests are answered as its user without checking a password again
// (Argon2id costs tens of milliseconds by design, too much for every request of a page).
//
// A token is 32 random bytes (libsodium) as 64 hex digits. Only a hash of it is kept, so that the
// table in memory does not hold what a browser could present. A session that is not used for
// IDLE is gone; the table holds at most `capacity` sessions, and when full the one used longest
// ago makes room. Nothing is written anywhere: a restart signs everyone out.
//
// Threads: any thread may call any member at any time (one mutex; a request's lookup is a hash
// and a map find). The time is passed in, so that tests set it.

namespace qm::web {

class SessionStore {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr Clock::duration IDLE = std::chrono::minutes(30);
    static constexpr std::size_t DEFAULT_CAPACITY = 1000;

    // REQUIRES: capacity > 0. THROWS: std::runtime_error when libsodium cannot be initialised.
    explicit SessionStore(std::size_t capacity = DEFAULT_CAPACITY);

    // A new session for `user`; its token, which only the browser keeps.
    std::string open(const std::string& user, Clock::time_point now);

    // The user of the session `token`, its idle time starting again; none for a token that is
    // unknown, closed or idle for IDLE or longer.
    std::optional<std::string> user(const std::string& token, Clock::time_point now);

    // Ends the session `token`; an unknown token is ignored.
    void close(const std::string& token);

    // The sessions held now (for tests of the bound).
    std::size_t size() const;

private:
    struct Session {
        std::string user;
        Clock::time_point last_used;
    };

    // The key a token is kept under: its BLAKE2b hash.
    static std::string key_of(const std::string& token);
    // Drops the idle sessions, and the one used longest ago while still full. REQUIRES: m_mutex.
    void make_room(Clock::time_point now);

    const std::size_t m_capacity;
    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Session> m_sessions;
};

}  // namespace qm::web
