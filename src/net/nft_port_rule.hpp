#pragma once

// An nftables rule that stops the datagrams a packet ring takes before they reach UDP: with a
// ring the system hands every datagram to the port to the ring and to the UDP socket that holds
// the port, and the socket's copy costs the receiving thread a dequeue per datagram to drain.
// The rule drops that copy in netfilter's prerouting hook (at raw priority, before connection
// tracking), after the ring has taken its own, so the socket is left with nothing to drain and the
// host's UDP counters see nothing.
//
// It matches exactly what the ring's filter takes: datagrams addressed to this host (link-layer
// type host, a local destination address), unfragmented, to the port, from the allowed senders.
// Everything else still reaches the socket: refused senders are then counted as the socket is
// drained, and nothing the ring did not take is dropped unseen.
//
// The rule lives in a table of its own, `ip quillmarwriter_PORT`, which `add` replaces whole (a
// table left by a recorder that crashed is replaced, not doubled) and `remove` deletes. Both run
// `nft -f -` with the ruleset on its standard input, at start and at stop only, on the main
// thread. Needs the nft program and CAP_NET_ADMIN; without them the caller drains the socket.

#include <cstdint>
#include <string>

#include "net/source_filter.hpp"

namespace qm::net {

class NftPortRule {
public:
    // Where Debian installs nft.
    static constexpr const char* NFT_PROGRAM = "/usr/sbin/nft";

    NftPortRule() = default;
    // Removes the rule if it is in place.
    ~NftPortRule();

    NftPortRule(const NftPortRule&) = delete;
    NftPortRule& operator=(const NftPortRule&) = delete;

    // Puts the rule for `port` (host order) and `allowed` in place, replacing any table of the same
    // name. Logs it at SYSTEM; on failure logs a WARNING naming nft's exit status and returns
    // false, with nothing in place.
    [[nodiscard]] bool add(std::uint16_t port, const SourceFilter& allowed);

    // Deletes the rule's table; harmless when none was added.
    void remove();

    // The ruleset `add` hands nft.
    static std::string ruleset(std::uint16_t port, const SourceFilter& allowed);

private:
    // The table's name; empty while no rule is in place.
    std::string m_table;
};

}  // namespace qm::net
