#pragma once

// Turning configuration text into IPv4 endpoints: a single address ("10.0.0.1:5060", ":5060",
// "5060", "10.0.0.1") and lists of hosts with ports or port ranges
// ("10.0.0.1:5000-5002, 10.0.0.2:6000"). Host names are never resolved. The functions are pure
// apart from their output arguments and may be called from any thread.

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qm::net {

// Separates host and port in every address text.
struct HOST_PORT_SEPARATOR {
    static constexpr char CHAR = ':';
    static constexpr const char* C_STR = ":";
};

// One endpoint of a host list: the host text as written and a port in host order.
struct Host {
    std::string host;
    std::uint16_t port = 0;
};

// One endpoint of an address list, with its socket address ready for sendto.
struct HostAddr {
    std::string host;
    std::uint16_t port = 0;
    sockaddr_in addr{};
};

// Parses the characters [begin, end) (up to the terminating zero when `end` is null) into `out`:
// an address and a port joined by ':', either side of which may be empty, or an address alone,
// or a port alone. A missing address means 127.0.0.1, a missing port 0; leading white space is
// skipped and a blank text gives 127.0.0.1:0. The address must be a dotted IPv4 address and the
// port a decimal number up to 65535. Returns non-zero on success, 0 on failure (a null `begin`
// included); `out` is cleared unless `begin` is null.
[[nodiscard]] int parse_addr(const char* begin, const char* end, sockaddr_in& out);

// Parses a comma-separated list of "host:port" or "host:first-last" items and append one element
// per port, ranges inclusive. White space around an item is ignored. An item without a port, with
// a port that is not a decimal number up to 65535, or with a range that runs backwards is skipped,
// so that one malformed item does not take the others with it; `parse_addrs` also skips an item
// whose host is not a dotted IPv4 address. Both return how many elements they appended.
std::size_t parse_addrs(const std::string& text, std::vector<HostAddr>& out);
std::size_t parse_hosts(const std::string& text, std::vector<Host>& out);

}  // namespace qm::net
