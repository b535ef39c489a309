#pragma once

#include <sodium.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

#include "web/basic_auth.hpp"

// HTTP Basic credentials that passed the users file's Argon2id check a short while ago. A script
// sends its credentials with every request, and Argon2id costs tens of milliseconds and 64 MiB by
// design: checked every time, fifty clients would keep the server busy checking passwords.
//
// Only a keyed BLAKE2b hash of name and password is kept, under a key drawn at random for this
// process, never the password. An entry holds for LIFETIME after its check, whatever its use;
// when CAPACITY entries are held, the expired go, then the oldest.
//
// Threads: any thread may call any member at any time (one mutex). The time is passed in, so that
// tests set it.

namespace qm::web {

class CredentialCache {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr Clock::duration LIFETIME = std::chrono::minutes(5);
    static constexpr std::size_t CAPACITY = 1000;

    // THROWS: std::runtime_error when libsodium cannot be initialised.
    CredentialCache();

    // Whether these credentials passed the check less than LIFETIME before `now`.
    bool known(const Credentials& credentials, Clock::time_point now);
    // Notes that these credentials passed the check at `now`.
    void remember(const Credentials& credentials, Clock::time_point now);

    // The entries held now (for tests of the bound).
    std::size_t size() const;

private:
    std::string key_of(const Credentials& credentials) const;

    std::array<unsigned char, crypto_generichash_KEYBYTES> m_key{};
    mutable std::mutex m_mutex;
    // Under m_mutex: when each entry's credentials were checked.
    std::unordered_map<std::string, Clock::time_point> m_checked;
};

}  // namespace qm::web
