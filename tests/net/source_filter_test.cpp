#include "net/source_filter.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qm::net {
namespace {

using Network = SourceFilter::Network;

constexpr std::uint32_t LOOPBACK = 0x7F000001;

// The networks of `text` as address and mask pairs; fails the test when it does not parse.
std::vector<std::pair<std::uint32_t, std::uint32_t>> networks_of(const std::string& text) {
    SourceFilter filter;
    std::string error;
    EXPECT_TRUE(SourceFilter::try_parse(text, filter, error)) << text << ": " << error;
    EXPECT_EQ(error, "");
    std::vector<std::pair<std::uint32_t, std::uint32_t>> result;
    for (const Network& network : filter.networks()) {
        result.emplace_back(network.address, network.mask);
    }
    return result;
}

// The reason `text` is refused for; fails the test when it parses.
std::string refusal_of(const std::string& text) {
    SourceFilter filter;
    std::string error;
    EXPECT_FALSE(SourceFilter::try_parse(text, filter, error)) << text;
    return error;
}

TEST(SourceFilterTest, EmptyFilterAllowsEverySource) {
    const SourceFilter filter;
    EXPECT_TRUE(filter.empty());
    EXPECT_TRUE(filter.allows(0));
    EXPECT_TRUE(filter.allows(0xFFFFFFFF));
    EXPECT_TRUE(networks_of("").empty());
    EXPECT_TRUE(networks_of("  \t ").empty());
}

TEST(SourceFilterTest, ItemsAreAddressesAndNetworks) {
    using Pairs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
    EXPECT_EQ(networks_of("127.0.0.1/32, 10.1.0.0/16,192.0.2.7"),
              (Pairs{{LOOPBACK, 0xFFFFFFFF}, {0x0A010000, 0xFFFF0000}, {0xC0000207, 0xFFFFFFFF}}));
    EXPECT_EQ(networks_of(" 0.0.0.0/0 "), (Pairs{{0, 0}}));
    EXPECT_EQ(networks_of("255.255.255.255/1"), (Pairs{{0x80000000, 0x80000000}}));
    EXPECT_EQ(networks_of("10.0.0.0/31"), (Pairs{{0x0A000000, 0xFFFFFFFE}}));
}

TEST(SourceFilterTest, HostBitsBeyondThePrefixAreCleared) {
    using Pairs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
    EXPECT_EQ(networks_of("10.200.3.1/8"), (Pairs{{0x0A000000, 0xFF000000}}));
}

TEST(SourceFilterTest, AllowsExactlyTheSourcesInItsNetworks) {
    SourceFilter filter;
    std::string error;
    ASSERT_TRUE(SourceFilter::try_parse("127.0.0.1, 10.1.0.0/16", filter, error));
    EXPECT_FALSE(filter.empty());
    EXPECT_TRUE(filter.allows(LOOPBACK));
    EXPECT_FALSE(filter.allows(0x7F000002));
    EXPECT_TRUE(filter.allows(0x0A010000));
    EXPECT_TRUE(filter.allows(0x0A01FFFF));
    EXPECT_FALSE(filter.allows(0x0A020000));
    EXPECT_FALSE(filter.allows(0x0A00FFFF));
    EXPECT_FALSE(filter.allows(0));
}

TEST(SourceFilterTest, ZeroPrefixAllowsEverySource) {
    SourceFilter filter;
    std::string error;
    ASSERT_TRUE(SourceFilter::try_parse("0.0.0.0/0", filter, error));
    EXPECT_FALSE(filter.empty());
    EXPECT_TRUE(filter.allows(0));
    EXPECT_TRUE(filter.allows(0xFFFFFFFF));
}

TEST(SourceFilterTest, MalformedItemsAreNamed) {
    const std::vector<std::string> bad = {
        "10.0.0.0/33", "10.0.0",     "10.0.0.0.1",  "256.0.0.1",  "01.2.3.4", "1.2.3.4/08",
        "1.2.3.4/",    "1.2.3.4/-1", "/8",          "1.2.3.a",    "1..2.3",   "1.2.3.4 /8",
        "0x7f.0.0.1",  "+1.2.3.4",   "1.2.3.4/8/8", "1234.0.0.1", "1.2.3.-4", "host.example",
    };
    for (const std::string& item : bad) {
        EXPECT_EQ(refusal_of("127.0.0.1, " + item + ", 10.0.0.1"),
                  "unexpected value format in item [" + item + "]");
    }
}

TEST(SourceFilterTest, EmptyItemsAreRefused) {
    EXPECT_EQ(refusal_of("127.0.0.1,"), "unexpected value format in item []");
    EXPECT_EQ(refusal_of(", 127.0.0.1"), "unexpected value format in item []");
    EXPECT_EQ(refusal_of("127.0.0.1, ,10.0.0.1"), "unexpected value format in item []");
}

TEST(SourceFilterTest, RefusalLeavesTheFilterAlone) {
    SourceFilter filter;
    std::string error;
    ASSERT_TRUE(SourceFilter::try_parse("127.0.0.1", filter, error));
    EXPECT_FALSE(SourceFilter::try_parse("10.0.0.1, x", filter, error));
    ASSERT_EQ(filter.networks().size(), 1u);
    EXPECT_EQ(filter.networks()[0].address, LOOPBACK);
}

// The list `count` networks long: 10.0.0.0, 10.0.0.1, ...
std::string many_items(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : ",") + std::string("10.0.") + std::to_string(i / 256) + "." +
                std::to_string(i % 256);
    }
    return text;
}

TEST(SourceFilterTest, AtMost512Items) {
    EXPECT_EQ(networks_of(many_items(SourceFilter::MAX_NETWORKS)).size(), 512u);
    EXPECT_EQ(refusal_of(many_items(SourceFilter::MAX_NETWORKS + 1)), "more than 512 items");
}

}  // namespace
}  // namespace qm::net
