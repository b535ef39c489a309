#include "web/sign_in_limiter.hpp"

#include <algorithm>
#include <iterator>

namespace qm::web {

SignInLimiter::SignInLimiter(std::size_t capacity) : m_capacity(capacity) {}

bool SignInLimiter::allowed(const std::string& address, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_entries.find(address);
    if (found == m_entries.end()) {
        return true;
    }
    if (stale(found->second, now)) {
        m_entries.erase(found);
        return true;
    }
    return now >= found->second.waits_until;
}

void SignInLimiter::failed(const std::string& address, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    auto found = m_entries.find(address);
    if (found == m_entries.end()) {
        make_room(now);
        found = m_entries.emplace(address, Entry{}).first;
    }
    Entry& entry = found->second;
    entry.last_heard = now;
    drop_old_failures(entry, now);
    entry.failures[entry.count++] = now;
    if (entry.count == FAILURES) {
        // The wait is the penalty; the failures that earned it are spent.
        entry.waits_until = now + WAIT;
        entry.count = 0;
    }
}

void SignInLimiter::succeeded(const std::string& address) {
    const std::lock_guard lock(m_mutex);
    m_entries.erase(address);
}

std::size_t SignInLimiter::size() const {
    const std::lock_guard lock(m_mutex);
    return m_entries.size();
}

bool SignInLimiter::stale(const Entry& entry, Clock::time_point now) {
    return now >= entry.waits_until && now - entry.last_heard >= WINDOW;
}

void SignInLimiter::drop_old_failures(Entry& entry, Clock::time_point now) {
    const auto begin = entry.failures.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(entry.count);
    const auto recent =
        std::find_if(begin, end, [now](Clock::time_point at) { return now - at < WINDOW; });
    if (recent != begin) {
        std::copy(recent, end, begin);
    }
    entry.count = static_cast<std::size_t>(std::distance(recent, end));
}

void SignInLimiter::make_room(Clock::time_point now) {
    if (m_entries.size() < m_capacity) {
        return;
    }
    std::erase_if(m_entries, [now](const auto& item) { return stale(item.second, now); });
    if (m_entries.size() < m_capacity) {
        return;
    }
    const auto oldest = std::min_element(
        m_entries.begin(), m_entries.end(),
        [](const auto& a, const auto& b) { return a.second.last_heard < b.second.last_heard; });
    m_entries.erase(oldest);
}

}  // namespace qm::web
