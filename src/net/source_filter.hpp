#pragma once

// The senders the recorder takes datagrams from: a list of IPv4 networks, each an address and a
// prefix length ("10.1.0.0/16"; an address alone is a /32). An empty filter allows every source.
//
// Threads: parsed once by the main thread while it reads the configuration, before any worker
// thread exists; read-only afterwards. `allows` runs once per datagram on the receiving thread: it
// allocates nothing and takes no lock.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qm::net {

class SourceFilter {
public:
    // One network, host order: `address` with its bits beyond the prefix cleared.
    struct Network {
        std::uint32_t address = 0;
        std::uint32_t mask = 0;
    };

    // The most networks one filter holds: the packet ring's filter program spends four
    // instructions on each, and the system takes at most 4096.
    static constexpr std::size_t MAX_NETWORKS = 512;

    // Parses a comma-separated list of networks, white space around each allowed: four decimal
    // octets without leading zeros, optionally "/" and a prefix length from 0 to 32 (also
    // without leading zeros). Bits of the address beyond the prefix are cleared ("10.0.0.1/8"
    // allows 10.0.0.0/8). A blank text gives the empty filter. On success replaces `out` and
    // returns true; otherwise leaves `out` alone, sets `error` to the reason for the log and
    // returns false: "unexpected value format in item [ITEM]" naming the first item that does
    // not parse (trimmed; an empty item shows as "[]"), or "more than 512 items".
    [[nodiscard]] static bool try_parse(std::string_view text, SourceFilter& out,
                                        std::string& error);

    // True when the filter is empty or `address` (host order) is in one of its networks.
    bool allows(std::uint32_t address) const {
        if (m_networks.empty()) {
            return true;
        }
        for (const Network& network : m_networks) {
            if ((address & network.mask) == network.address) {
                return true;
            }
        }
        return false;
    }

    // True when every source is allowed.
    bool empty() const { return m_networks.empty(); }

    std::span<const Network> networks() const { return m_networks; }

private:
    std::vector<Network> m_networks;
};

}  // namespace qm::net
