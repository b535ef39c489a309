#pragma once

#include <optional>
#include <string>
#include <string_view>

// Where `quillmar serve` listens: "ADDR:PORT" with a numeric IPv4 address or a bracketed IPv6
// one ("[::1]:8090"). Plain functions; any thread.

namespace qm::web {

struct ListenAddress {
    // Without brackets.
    std::string host;
    int port = 0;

    bool operator==(const ListenAddress&) const = default;
};

// None when the text is not of that form or the port is not 0..65535.
std::optional<ListenAddress> parse_listen_address(std::string_view text);

// Whether only this machine can reach the address: 127.0.0.0/8 or ::1.
bool is_loopback(const ListenAddress& address);

// "127.0.0.1:8090", "[::1]:8090".
std::string address_text(const ListenAddress& address);

}  // namespace qm::web
