#include "net/net_address.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace qm::net {
namespace {

constexpr std::uint32_t LOOPBACK = 0x7F000001;
constexpr std::uint32_t TEN_0_0_1 = 0x0A000001;

// A socket address filled with garbage, so that a test sees what parse_addr wrote.
sockaddr_in dirty_address() {
    sockaddr_in address;
    std::memset(&address, 0xA5, sizeof(address));
    return address;
}

int parse(const std::string& text, sockaddr_in& out) {
    return parse_addr(text.data(), text.data() + text.size(), out);
}

void expect_address(const sockaddr_in& address, std::uint32_t host, std::uint16_t port) {
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), host);
    EXPECT_EQ(ntohs(address.sin_port), port);
    const sockaddr_in zero{};
    EXPECT_EQ(std::memcmp(address.sin_zero, zero.sin_zero, sizeof(zero.sin_zero)), 0);
}

TEST(ParseAddrTest, EmptyTextIsLoopbackPortZero) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse("", out), 0);
    expect_address(out, LOOPBACK, 0);
}

TEST(ParseAddrTest, BlankTextIsLoopbackPortZero) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse(" \t ", out), 0);
    expect_address(out, LOOPBACK, 0);
}

TEST(ParseAddrTest, SeparatorAndPortIsLoopbackWithThatPort) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse(":5060", out), 0);
    expect_address(out, LOOPBACK, 5060);
}

TEST(ParseAddrTest, PortAloneIsLoopbackWithThatPort) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse("5060", out), 0);
    expect_address(out, LOOPBACK, 5060);
}

TEST(ParseAddrTest, AddressAloneHasPortZero) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse("10.0.0.1", out), 0);
    expect_address(out, TEN_0_0_1, 0);
}

TEST(ParseAddrTest, AddressWithTrailingSeparatorHasPortZero) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse("10.0.0.1:", out), 0);
    expect_address(out, TEN_0_0_1, 0);
}

TEST(ParseAddrTest, AddressAndPort) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse("10.0.0.1:5060", out), 0);
    expect_address(out, TEN_0_0_1, 5060);
}

TEST(ParseAddrTest, LeadingWhiteSpaceIsSkipped) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse("  \t10.0.0.1:5060", out), 0);
    expect_address(out, TEN_0_0_1, 5060);
}

TEST(ParseAddrTest, HostNameWithPortFailsBecauseNamesAreNotResolved) {
    sockaddr_in out{};
    EXPECT_EQ(parse("localhost:5060", out), 0);
}

TEST(ParseAddrTest, HostNameAloneFails) {
    sockaddr_in out{};
    EXPECT_EQ(parse("localhost", out), 0);
}

TEST(ParseAddrTest, PortAboveSixteenBitsFails) {
    sockaddr_in out{};
    EXPECT_EQ(parse("10.0.0.1:70000", out), 0);
    EXPECT_EQ(parse("70000", out), 0);
}

TEST(ParseAddrTest, PortWithTrailingCharactersFails) {
    sockaddr_in out{};
    EXPECT_EQ(parse("10.0.0.1:50x", out), 0);
}

TEST(ParseAddrTest, IncompleteDottedAddressWithPortFails) {
    sockaddr_in out{};
    EXPECT_EQ(parse("10.0.0:5060", out), 0);
}

TEST(ParseAddrTest, NullBeginFailsAndLeavesOutputAlone) {
    sockaddr_in out = dirty_address();
    const sockaddr_in before = out;
    EXPECT_EQ(parse_addr(nullptr, nullptr, out), 0);
    EXPECT_EQ(std::memcmp(&out, &before, sizeof(out)), 0);
}

TEST(ParseAddrTest, NullEndRunsToTheTerminatingZero) {
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse_addr("10.0.0.1:5060", nullptr, out), 0);
    expect_address(out, TEN_0_0_1, 5060);
}

TEST(ParseAddrTest, EndBoundsTheText) {
    const char text[] = "10.0.0.1:5060garbage";
    sockaddr_in out = dirty_address();
    EXPECT_NE(parse_addr(text, text + std::strlen("10.0.0.1:5060"), out), 0);
    expect_address(out, TEN_0_0_1, 5060);
}

void expect_host(const Host& host, const std::string& name, std::uint16_t port) {
    EXPECT_EQ(host.host, name);
    EXPECT_EQ(host.port, port);
}

TEST(ParseHostsTest, RangeAndSinglePortGiveFourElementsInOrder) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("10.0.0.1:5000-5002, 10.0.0.2:6000", hosts), 4u);
    ASSERT_EQ(hosts.size(), 4u);
    expect_host(hosts[0], "10.0.0.1", 5000);
    expect_host(hosts[1], "10.0.0.1", 5001);
    expect_host(hosts[2], "10.0.0.1", 5002);
    expect_host(hosts[3], "10.0.0.2", 6000);
}

TEST(ParseHostsTest, AppendsBehindExistingElements) {
    std::vector<Host> hosts{{"existing", 1}};
    EXPECT_EQ(parse_hosts("10.0.0.2:6000", hosts), 1u);
    ASSERT_EQ(hosts.size(), 2u);
    expect_host(hosts[0], "existing", 1);
    expect_host(hosts[1], "10.0.0.2", 6000);
}

TEST(ParseHostsTest, HostNamesAreKeptAsWritten) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("recorder-1.example:7000", hosts), 1u);
    ASSERT_EQ(hosts.size(), 1u);
    expect_host(hosts[0], "recorder-1.example", 7000);
}

TEST(ParseHostsTest, WhiteSpaceAroundItemsIsIgnored) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts(" \t10.0.0.1:5000 ,\n10.0.0.2:6000\t", hosts), 2u);
    ASSERT_EQ(hosts.size(), 2u);
    expect_host(hosts[0], "10.0.0.1", 5000);
    expect_host(hosts[1], "10.0.0.2", 6000);
}

TEST(ParseHostsTest, EmptyTextAppendsNothing) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("", hosts), 0u);
    EXPECT_EQ(parse_hosts(" , ,", hosts), 0u);
    EXPECT_TRUE(hosts.empty());
}

TEST(ParseHostsTest, ItemWithoutPortIsSkipped) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("10.0.0.1, 10.0.0.2:6000, 10.0.0.3:", hosts), 1u);
    ASSERT_EQ(hosts.size(), 1u);
    expect_host(hosts[0], "10.0.0.2", 6000);
}

TEST(ParseHostsTest, BackwardRangeIsSkipped) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("10.0.0.1:5002-5000, 10.0.0.2:6000", hosts), 1u);
    ASSERT_EQ(hosts.size(), 1u);
    expect_host(hosts[0], "10.0.0.2", 6000);
}

TEST(ParseHostsTest, RangeOfOnePortGivesOneElement) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("10.0.0.1:5000-5000", hosts), 1u);
    ASSERT_EQ(hosts.size(), 1u);
    expect_host(hosts[0], "10.0.0.1", 5000);
}

TEST(ParseHostsTest, UnparsablePortsAreSkipped) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("a:abc, b:70000, c:50x, d:5000-6x, e:-5000, f:1-2-3, g:6000", hosts), 1u);
    ASSERT_EQ(hosts.size(), 1u);
    expect_host(hosts[0], "g", 6000);
}

TEST(ParseHostsTest, ItemWithTwoSeparatorsIsSkipped) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("10.0.0.1:5000:6000, 10.0.0.2:6000", hosts), 1u);
    ASSERT_EQ(hosts.size(), 1u);
    expect_host(hosts[0], "10.0.0.2", 6000);
}

TEST(ParseHostsTest, RangeEndingAtTheLastPortStops) {
    std::vector<Host> hosts;
    EXPECT_EQ(parse_hosts("10.0.0.1:65534-65535", hosts), 2u);
    ASSERT_EQ(hosts.size(), 2u);
    expect_host(hosts[0], "10.0.0.1", 65534);
    expect_host(hosts[1], "10.0.0.1", 65535);
}

void expect_host_addr(const HostAddr& element, const std::string& name, std::uint32_t address,
                      std::uint16_t port) {
    EXPECT_EQ(element.host, name);
    EXPECT_EQ(element.port, port);
    expect_address(element.addr, address, port);
}

TEST(ParseAddrsTest, FillsSocketAddressesForEveryPort) {
    std::vector<HostAddr> addresses;
    EXPECT_EQ(parse_addrs("10.0.0.1:5000-5002, 127.0.0.1:6000", addresses), 4u);
    ASSERT_EQ(addresses.size(), 4u);
    expect_host_addr(addresses[0], "10.0.0.1", TEN_0_0_1, 5000);
    expect_host_addr(addresses[1], "10.0.0.1", TEN_0_0_1, 5001);
    expect_host_addr(addresses[2], "10.0.0.1", TEN_0_0_1, 5002);
    expect_host_addr(addresses[3], "127.0.0.1", LOOPBACK, 6000);
}

TEST(ParseAddrsTest, ItemWhoseHostIsNotADottedAddressIsSkipped) {
    std::vector<HostAddr> addresses;
    EXPECT_EQ(parse_addrs("localhost:5000, 10.0.0.1:6000, 10.0.0:7000", addresses), 1u);
    ASSERT_EQ(addresses.size(), 1u);
    expect_host_addr(addresses[0], "10.0.0.1", TEN_0_0_1, 6000);
}

TEST(ParseAddrsTest, SkipsTheSameMalformedItemsAsParseHosts) {
    std::vector<HostAddr> addresses{HostAddr{"existing", 1, {}}};
    EXPECT_EQ(parse_addrs("10.0.0.1, 10.0.0.1:5002-5000, 10.0.0.1:x, 10.0.0.1:9000", addresses),
              1u);
    ASSERT_EQ(addresses.size(), 2u);
    EXPECT_EQ(addresses[0].host, "existing");
    expect_host_addr(addresses[1], "10.0.0.1", TEN_0_0_1, 9000);
}

}  // namespace
}  // namespace qm::net
