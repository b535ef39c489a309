#pragma once

// The datagrams dropped because their sender is not in `allowed_sources`: how many since the last
// look, and the sender of the latest, for the report's WARNING.
//
// Threads: `refuse` is called by the receiving thread, once per refused datagram; `take` by the
// report's thread. Neither allocates or locks. Both fields are relaxed atomics: nothing else is
// published through them, each is a value of its own, and the report only needs every refusal
// counted once, which the atomic read-modify-writes guarantee. The last sender may be one counted
// just after a `take`: it names a recent refused sender, not necessarily one of those counted.

#include <netinet/in.h>

#include <atomic>
#include <cstdint>

namespace qm::net {

class RefusedSources {
public:
    // What `take` found.
    struct Refusals {
        std::uint64_t count = 0;
        // The latest refused sender, host order; 0 before the first refusal.
        std::uint32_t address = 0;
        std::uint16_t port = 0;
    };

    // Counts one datagram from `source` (network order, as the system gives it).
    void refuse(const sockaddr_in& source) {
        m_count.fetch_add(1, std::memory_order_relaxed);
        m_last.store(static_cast<std::uint64_t>(ntohl(source.sin_addr.s_addr)) << 16 |
                         ntohs(source.sin_port),
                     std::memory_order_relaxed);
    }

    // The refusals counted since the last call, and the latest sender.
    Refusals take() {
        const std::uint64_t count = m_count.exchange(0, std::memory_order_relaxed);
        const std::uint64_t last = m_last.load(std::memory_order_relaxed);
        return {count, static_cast<std::uint32_t>(last >> 16), static_cast<std::uint16_t>(last)};
    }

private:
    std::atomic<std::uint64_t> m_count{0};
    // The latest sender: its address above its port, so that both change in one store.
    std::atomic<std::uint64_t> m_last{0};
};

}  // namespace qm::net
