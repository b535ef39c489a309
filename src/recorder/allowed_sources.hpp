#pragma once

// The receive loops' check of `allowed_sources` (see receive_loop.hpp): called by the receiving
// thread once per datagram, it allocates nothing and takes no lock.

#include <arpa/inet.h>
#include <netinet/in.h>

#include "net/refused_sources.hpp"
#include "net/source_filter.hpp"

namespace qm::recorder {

// Admits the senders `filter` allows and counts every other datagram in `refused`.
// REQUIRES: both outlive it.
class AllowedSources {
public:
    AllowedSources(const net::SourceFilter& filter, net::RefusedSources& refused)
        : m_filter(filter), m_refused(refused) {}

    bool operator()(const sockaddr_in& source) const {
        if (m_filter.allows(ntohl(source.sin_addr.s_addr))) {
            return true;
        }
        m_refused.refuse(source);
        return false;
    }

private:
    const net::SourceFilter& m_filter;
    net::RefusedSources& m_refused;
};

}  // namespace qm::recorder
