#include "net/net_address.hpp"

#include <arpa/inet.h>

#include <cstring>
#include <string_view>

#include "utils/str.hpp"

namespace qm::net {
namespace {

constexpr std::uint32_t LOOPBACK_ADDRESS = INADDR_LOOPBACK;
constexpr char PORT_RANGE_SEPARATOR = '-';
constexpr char LIST_SEPARATOR = ',';

[[nodiscard]] bool try_parse_port(const std::string& text, std::uint16_t& port) {
    unsigned short value = 0;
    if (!utils::str::try_parse_value<unsigned short, 10>(text, value)) {
        return false;
    }
    port = value;
    return true;
}

[[nodiscard]] bool try_parse_ipv4(const std::string& text, in_addr& address) {
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// Reads "first" or "first-last" into an inclusive range; a backward range is refused.
[[nodiscard]] bool try_parse_port_range(const std::string& text, std::uint16_t& first,
                                        std::uint16_t& last) {
    std::vector<std::string> bounds;
    utils::str::split(text, PORT_RANGE_SEPARATOR, bounds, true);
    if (bounds.empty() || bounds.size() > 2 || !try_parse_port(bounds.front(), first) ||
        !try_parse_port(bounds.back(), last)) {
        return false;
    }
    return first <= last;
}

// Calls `append(host, first, last)` for every well-formed item of a comma-separated list.
template <typename Append>
void for_each_endpoint(const std::string& text, Append append) {
    std::vector<std::string> items;
    utils::str::split(text, LIST_SEPARATOR, items);
    for (const std::string& item : items) {
        std::vector<std::string> parts;
        utils::str::split(utils::str::trim_right(utils::str::trim_left(item)),
                          HOST_PORT_SEPARATOR::CHAR, parts);
        std::uint16_t first = 0;
        std::uint16_t last = 0;
        if (parts.size() == 2 && try_parse_port_range(parts[1], first, last)) {
            append(parts[0], first, last);
        }
    }
}

// Every port of [first, last]; the counter is wider than a port so that 65535 ends the loop.
template <typename Emit>
void for_each_port(std::uint16_t first, std::uint16_t last, Emit emit) {
    for (std::uint32_t port = first; port <= last; ++port) {
        emit(static_cast<std::uint16_t>(port));
    }
}

}  // namespace

int parse_addr(const char* begin, const char* end, sockaddr_in& out) {
    if (begin == nullptr) {
        return 0;
    }
    const std::string text = utils::str::trim_left(
        std::string_view(begin, end != nullptr ? end : begin + std::strlen(begin)));
    out = sockaddr_in{};
    out.sin_family = AF_INET;
    out.sin_addr.s_addr = htonl(LOOPBACK_ADDRESS);
    if (text.empty()) {
        return 1;
    }
    std::uint16_t port = 0;
    const std::size_t separator = text.rfind(HOST_PORT_SEPARATOR::CHAR);
    if (separator == std::string::npos) {
        // A lone token is an address if it reads as one, otherwise a port.
        if (!try_parse_ipv4(text, out.sin_addr) && !try_parse_port(text, port)) {
            return 0;
        }
    } else {
        const std::string address = text.substr(0, separator);
        const std::string port_text = text.substr(separator + 1);
        if (!port_text.empty() && !try_parse_port(port_text, port)) {
            return 0;
        }
        if (!address.empty() && !try_parse_ipv4(address, out.sin_addr)) {
            return 0;
        }
    }
    out.sin_port = htons(port);
    return 1;
}

std::size_t parse_addrs(const std::string& text, std::vector<HostAddr>& out) {
    const std::size_t before = out.size();
    for_each_endpoint(text,
                      [&out](const std::string& host, std::uint16_t first, std::uint16_t last) {
                          in_addr address{};
                          if (!try_parse_ipv4(host, address)) {
                              return;
                          }
                          for_each_port(first, last, [&](std::uint16_t port) {
                              HostAddr& element = out.emplace_back(HostAddr{host, port, {}});
                              element.addr.sin_family = AF_INET;
                              element.addr.sin_port = htons(port);
                              element.addr.sin_addr = address;
                          });
                      });
    return out.size() - before;
}

std::size_t parse_hosts(const std::string& text, std::vector<Host>& out) {
    const std::size_t before = out.size();
    for_each_endpoint(text, [&out](const std::string& host, std::uint16_t first,
                                   std::uint16_t last) {
        for_each_port(first, last, [&](std::uint16_t port) { out.push_back(Host{host, port}); });
    });
    return out.size() - before;
}

}  // namespace qm::net
