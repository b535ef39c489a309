#include "net/nft_port_rule.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "network_namespace.hpp"

namespace qm::net {
namespace {

SourceFilter parsed(const std::string& text) {
    SourceFilter filter;
    std::string error;
    EXPECT_TRUE(SourceFilter::try_parse(text, filter, error)) << error;
    return filter;
}

// The exit status of `nft list table ip NAME`: 0 while the table exists.
int list_table(const std::string& name) {
    const std::string command =
        std::string(NftPortRule::NFT_PROGRAM) + " list table ip " + name + " >/dev/null 2>&1";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(NftPortRuleTest, RulesetForEverySenderMatchesWhatTheRingTakes) {
    EXPECT_EQ(NftPortRule::ruleset(5090, SourceFilter()),
              "table ip quillmarwriter_5090\n"
              "delete table ip quillmarwriter_5090\n"
              "table ip quillmarwriter_5090 {\n"
              "    chain prerouting {\n"
              "        type filter hook prerouting priority raw; policy accept;\n"
              "        meta pkttype host fib daddr type local ip frag-off & 0x3fff == 0 udp dport "
              "5090 drop\n"
              "    }\n"
              "}\n");
}

// Only the allowed senders' datagrams reach the ring, so only theirs stop before UDP: the others
// still reach the socket, where the drain counts them.
TEST(NftPortRuleTest, RulesetNamesTheAllowedNetworks) {
    const std::string ruleset = NftPortRule::ruleset(40000, parsed("127.0.0.1, 10.1.2.3/16"));

    EXPECT_NE(ruleset.find("        meta pkttype host fib daddr type local ip frag-off & 0x3fff == "
                           "0 ip saddr { 127.0.0.1/32, 10.1.0.0/16 } udp dport 40000 drop\n"),
              std::string::npos)
        << ruleset;
}

// In a network namespace of the test's own, so that the host's firewall is never touched.
TEST(NftPortRuleTest, AddPutsTheTableInPlaceAndRemoveDeletesIt) {
    test::NetworkNamespace own;
    ASSERT_TRUE(own.enter());
    test::LogCapture capture;
    NftPortRule rule;

    ASSERT_TRUE(rule.add(5090, parsed("127.0.0.1")));
    EXPECT_EQ(list_table("quillmarwriter_5090"), 0);
    // A second add (a table left behind) replaces the table rather than failing.
    NftPortRule again;
    EXPECT_TRUE(again.add(5090, SourceFilter()));
    rule.remove();

    EXPECT_EQ(list_table("quillmarwriter_5090"), 1);
    EXPECT_EQ(capture.texts(log::Level::SYSTEM),
              std::vector<std::string>(2,
                                       "NFT_PORT_RULE: datagrams to port 5090 that the ring "
                                       "takes stop before UDP (nftables table ip "
                                       "quillmarwriter_5090)"));
    // The second rule's table is gone already: its removal says so.
    again.remove();
    EXPECT_EQ(capture.texts(log::Level::WARNING),
              (std::vector<std::string>{"NFT_PORT_RULE: failed to delete the nftables table ip "
                                        "quillmarwriter_5090; delete it with: nft delete table ip "
                                        "quillmarwriter_5090"}));
}

}  // namespace
}  // namespace qm::net
