#include "web/session_store.hpp"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace qm::web {
namespace {

constexpr std::size_t TOKEN_BYTES = 32;

std::string hex_of(const unsigned char* bytes, std::size_t size) {
    std::string text(size * 2 + 1, '\0');
    sodium_bin2hex(text.data(), text.size(), bytes, size);
    text.pop_back();
    return text;
}

}  // namespace

SessionStore::SessionStore(std::size_t capacity) : m_capacity(capacity) {
    // The random tokens need libsodium initialised; calling it again is harmless.
    if (::sodium_init() < 0) {
        throw std::runtime_error("libsodium cannot be initialised");
    }
}

std::string SessionStore::key_of(const std::string& token) {
    std::array<unsigned char, crypto_generichash_BYTES> hash{};
    crypto_generichash(hash.data(), hash.size(),
                       reinterpret_cast<const unsigned char*>(token.data()), token.size(), nullptr,
                       0);
    return std::string(reinterpret_cast<const char*>(hash.data()), hash.size());
}

std::string SessionStore::open(const std::string& user, Clock::time_point now) {
    std::array<unsigned char, TOKEN_BYTES> random{};
    randombytes_buf(random.data(), random.size());
    const std::string token = hex_of(random.data(), random.size());
    const std::lock_guard lock(m_mutex);
    make_room(now);
    m_sessions[key_of(token)] = Session{user, now};
    return token;
}

std::optional<std::string> SessionStore::user(const std::string& token, Clock::time_point now) {
    const std::string key = key_of(token);
    const std::lock_guard lock(m_mutex);
    const auto found = m_sessions.find(key);
    if (found == m_sessions.end()) {
        return std::nullopt;
    }
    if (now - found->second.last_used >= IDLE) {
        m_sessions.erase(found);
        return std::nullopt;
    }
    found->second.last_used = now;
    return found->second.user;
}

void SessionStore::close(const std::string& token) {
    const std::string key = key_of(token);
    const std::lock_guard lock(m_mutex);
    m_sessions.erase(key);
}

std::size_t SessionStore::size() const {
    const std::lock_guard lock(m_mutex);
    return m_sessions.size();
}

void SessionStore::make_room(Clock::time_point now) {
    if (m_sessions.size() < m_capacity) {
        return;
    }
    std::erase_if(m_sessions,
                  [now](const auto& entry) { return now - entry.second.last_used >= IDLE; });
    if (m_sessions.size() < m_capacity) {
        return;
    }
    const auto oldest = std::min_element(
        m_sessions.begin(), m_sessions.end(),
        [](const auto& a, const auto& b) { return a.second.last_used < b.second.last_used; });
    m_sessions.erase(oldest);
}

}  // namespace qm::web
