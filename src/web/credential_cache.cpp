#include "web/credential_cache.hpp"

#include <algorithm>
#include <stdexcept>

namespace qm::web {

CredentialCache::CredentialCache() {
    if (::sodium_init() < 0) {
        throw std::runtime_error("libsodium cannot be initialised");
    }
    crypto_generichash_keygen(m_key.data());
}

std::string CredentialCache::key_of(const Credentials& credentials) const {
    // The name's length first, so that no two (name, password) pairs hash the same text.
    const std::string text =
        std::to_string(credentials.name.size()) + ":" + credentials.name + credentials.password;
    std::array<unsigned char, crypto_generichash_BYTES> hash{};
    crypto_generichash(hash.data(), hash.size(),
                       reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                       m_key.data(), m_key.size());
    return std::string(reinterpret_cast<const char*>(hash.data()), hash.size());
}

bool CredentialCache::known(const Credentials& credentials, Clock::time_point now) {
    const std::string key = key_of(credentials);
    const std::lock_guard lock(m_mutex);
    const auto found = m_checked.find(key);
    if (found == m_checked.end()) {
        return false;
    }
    if (now - found->second >= LIFETIME) {
        m_checked.erase(found);
        return false;
    }
    return true;
}

void CredentialCache::remember(const Credentials& credentials, Clock::time_point now) {
    const std::string key = key_of(credentials);
    const std::lock_guard lock(m_mutex);
    if (m_checked.size() >= CAPACITY) {
        std::erase_if(m_checked,
                      [now](const auto& entry) { return now - entry.second >= LIFETIME; });
    }
    if (m_checked.size() >= CAPACITY) {
        m_checked.erase(std::min_element(
            m_checked.begin(), m_checked.end(),
            [](const auto& left, const auto& right) { return left.second < right.second; }));
    }
    m_checked[key] = now;
}

std::size_t CredentialCache::size() const {
    const std::lock_guard lock(m_mutex);
    return m_checked.size();
}

}  // namespace qm::web
