#include "web/listen_address.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>

namespace qm::web {
namespace {

bool is_ipv6(const std::string& host) {
    in6_addr address{};
    return ::inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

}  // namespace

std::optional<ListenAddress> parse_listen_address(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view host = text.substr(0, colon);
    const std::string_view port_text = text.substr(colon + 1);
    const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    ListenAddress address{std::string(host), 0};
    in_addr ipv4{};
    const bool numeric =
        bracketed ? is_ipv6(address.host) : ::inet_pton(AF_INET, address.host.c_str(), &ipv4) == 1;
    const auto [end, error] =
        std::from_chars(port_text.data(), port_text.data() + port_text.size(), address.port);
    if (!numeric || port_text.empty() || error != std::errc{} ||
        end != port_text.data() + port_text.size() || address.port < 0 || address.port > 65535) {
        return std::nullopt;
    }
    return address;
}

bool is_loopback(const ListenAddress& address) {
    in_addr ipv4{};
    if (::inet_pton(AF_INET, address.host.c_str(), &ipv4) == 1) {
        return (ntohl(ipv4.s_addr) >> 24) == 127;
    }
    in6_addr ipv6{};
    return ::inet_pton(AF_INET6, address.host.c_str(), &ipv6) == 1 && IN6_IS_ADDR_LOOPBACK(&ipv6);
}

std::string address_text(const ListenAddress& address) {
    const std::string host = is_ipv6(address.host) ? "[" + address.host + "]" : address.host;
    return host + ":" + std::to_string(address.port);
}

}  // namespace qm::web
