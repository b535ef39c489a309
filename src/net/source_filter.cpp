#include "net/source_filter.hpp"

#include <optional>
#include <utility>

#include "utils/str.hpp"

namespace qm::net {
namespace {

constexpr char ITEM_SEPARATOR = ',';
constexpr char PREFIX_SEPARATOR = '/';
constexpr char OCTET_SEPARATOR = '.';
constexpr std::uint32_t LONGEST_PREFIX = 32;
constexpr std::size_t OCTETS = 4;

// A decimal number of at most `max_digits` digits and no leading zero, up to `largest`.
std::optional<std::uint32_t> parse_decimal(std::string_view text, std::size_t max_digits,
                                           std::uint32_t largest) {
    if (text.empty() || text.size() > max_digits || (text.size() > 1 && text.front() == '0')) {
        return std::nullopt;
    }
    std::uint32_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<std::uint32_t>(c - '0');
    }
    return value <= largest ? std::optional<std::uint32_t>(value) : std::nullopt;
}

std::optional<std::uint32_t> parse_address(std::string_view text) {
    std::uint32_t address = 0;
    for (std::size_t i = 0; i < OCTETS; ++i) {
        const std::size_t end = i + 1 < OCTETS ? text.find(OCTET_SEPARATOR) : text.size();
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        const std::optional<std::uint32_t> octet = parse_decimal(text.substr(0, end), 3, 255);
        if (!octet) {
            return std::nullopt;
        }
        address = address << 8 | *octet;
        text.remove_prefix(i + 1 < OCTETS ? end + 1 : end);
    }
    return address;
}

std::optional<SourceFilter::Network> parse_network(std::string_view item) {
    const std::size_t slash = item.find(PREFIX_SEPARATOR);
    const std::optional<std::uint32_t> address = parse_address(item.substr(0, slash));
    const std::optional<std::uint32_t> prefix =
        slash == std::string_view::npos ? std::optional<std::uint32_t>(LONGEST_PREFIX)
                                        : parse_decimal(item.substr(slash + 1), 2, LONGEST_PREFIX);
    if (!address || !prefix) {
        return std::nullopt;
    }
    // A shift by 32 is undefined; a /0 network has no mask bits at all.
    const std::uint32_t mask = *prefix == 0 ? 0 : ~std::uint32_t{0} << (LONGEST_PREFIX - *prefix);
    return SourceFilter::Network{*address & mask, mask};
}

std::string trim(std::string_view text) {
    return utils::str::trim_left(utils::str::trim_right(text));
}

}  // namespace

bool SourceFilter::try_parse(std::string_view text, SourceFilter& out, std::string& error) {
    SourceFilter parsed;
    if (trim(text).empty()) {
        out = std::move(parsed);
        return true;
    }
    while (true) {
        const std::size_t comma = text.find(ITEM_SEPARATOR);
        const std::string item = trim(text.substr(0, comma));
        const std::optional<Network> network = parse_network(item);
        if (!network) {
            error = "unexpected value format in item [" + item + "]";
            return false;
        }
        if (parsed.m_networks.size() == MAX_NETWORKS) {
            error = "more than " + std::to_string(MAX_NETWORKS) + " items";
            return false;
        }
        parsed.m_networks.push_back(*network);
        if (comma == std::string_view::npos) {
            break;
        }
        text.remove_prefix(comma + 1);
    }
    out = std::move(parsed);
    return true;
}

}  // namespace qm::net
