// The pure parts of the API: byte ranges, uuids, listen addresses and the metrics file's JSON.

#include <gtest/gtest.h>

#include "web/basic_auth.hpp"
#include "web/byte_range.hpp"
#include "web/leg_request.hpp"
#include "web/listen_address.hpp"
#include "web/metrics_json.hpp"

namespace qm::web {
namespace {

TEST(ByteRangeTest, SingleRangesAreAnswered) {
    EXPECT_EQ(answer_range("bytes=1000-1999", 5000), (RangeAnswer{RangeKind::PART, {1000, 1999}}));
    EXPECT_EQ(answer_range("bytes=4000-", 5000), (RangeAnswer{RangeKind::PART, {4000, 4999}}));
    EXPECT_EQ(answer_range("bytes=-100", 5000), (RangeAnswer{RangeKind::PART, {4900, 4999}}));
    // A last byte past the end is cut; a suffix longer than the body is the whole body.
    EXPECT_EQ(answer_range("bytes=4990-6000", 5000), (RangeAnswer{RangeKind::PART, {4990, 4999}}));
    EXPECT_EQ(answer_range("bytes=-6000", 5000), (RangeAnswer{RangeKind::PART, {0, 4999}}));
    EXPECT_EQ(answer_range("bytes=0-0", 1), (RangeAnswer{RangeKind::PART, {0, 0}}));
}

TEST(ByteRangeTest, RangesPastTheEndAreUnsatisfiable) {
    EXPECT_EQ(answer_range("bytes=5000-", 5000).kind, RangeKind::UNSATISFIABLE);
    EXPECT_EQ(answer_range("bytes=5000-5001", 5000).kind, RangeKind::UNSATISFIABLE);
    EXPECT_EQ(answer_range("bytes=-0", 5000).kind, RangeKind::UNSATISFIABLE);
    EXPECT_EQ(answer_range("bytes=-10", 0).kind, RangeKind::UNSATISFIABLE);
}

TEST(ByteRangeTest, WhatIsNotOneByteRangeGetsTheWholeBody) {
    EXPECT_EQ(answer_range("", 5000).kind, RangeKind::WHOLE);
    EXPECT_EQ(answer_range("items=0-1", 5000).kind, RangeKind::WHOLE);
    EXPECT_EQ(answer_range("bytes=0-1,5-6", 5000).kind, RangeKind::WHOLE);
    EXPECT_EQ(answer_range("bytes=20-10", 5000).kind, RangeKind::WHOLE);
    EXPECT_EQ(answer_range("bytes=a-10", 5000).kind, RangeKind::WHOLE);
    EXPECT_EQ(answer_range("bytes=-", 5000).kind, RangeKind::WHOLE);
    EXPECT_EQ(answer_range("bytes=1-99999999999999999999", 5000).kind, RangeKind::WHOLE);
}

TEST(LegUuidTest, OnlyTheRecordersFormNamesALeg) {
    EXPECT_TRUE(is_leg_uuid("00112233-4455-6677-8899-aabbccddeeff"));
    EXPECT_FALSE(is_leg_uuid("00112233-4455-6677-8899-AABBCCDDEEFF"));
    EXPECT_FALSE(is_leg_uuid("00112233-4455-6677-8899-aabbccddeef"));
    EXPECT_FALSE(is_leg_uuid("00112233-4455-6677-8899-aabbccddeeff0"));
    EXPECT_FALSE(is_leg_uuid("0011223344-55-6677-8899-aabbccddeeff"));
    EXPECT_FALSE(is_leg_uuid("00112233-4455-6677-8899-aabbccddeeg0"));
    EXPECT_FALSE(is_leg_uuid("../../../../etc/passwd/../../../../x"));
    EXPECT_FALSE(is_leg_uuid(""));
}

TEST(ListenAddressTest, NumericAddressesWithAPort) {
    EXPECT_EQ(parse_listen_address("127.0.0.1:8090"), (ListenAddress{"127.0.0.1", 8090}));
    EXPECT_EQ(parse_listen_address("[::1]:0"), (ListenAddress{"::1", 0}));
    EXPECT_EQ(parse_listen_address("0.0.0.0:65535"), (ListenAddress{"0.0.0.0", 65535}));
    EXPECT_EQ(parse_listen_address("localhost:8090"), std::nullopt);
    EXPECT_EQ(parse_listen_address("127.0.0.1:65536"), std::nullopt);
    EXPECT_EQ(parse_listen_address("127.0.0.1:"), std::nullopt);
    EXPECT_EQ(parse_listen_address("127.0.0.1"), std::nullopt);
    EXPECT_EQ(parse_listen_address("::1:8090"), std::nullopt);
    EXPECT_EQ(address_text({"::1", 8090}), "[::1]:8090");
    EXPECT_EQ(address_text({"127.0.0.1", 8090}), "127.0.0.1:8090");
}

TEST(ListenAddressTest, LoopbackIs127Slash8AndColonColon1) {
    EXPECT_TRUE(is_loopback({"127.0.0.1", 1}));
    EXPECT_TRUE(is_loopback({"127.255.0.9", 1}));
    EXPECT_TRUE(is_loopback({"::1", 1}));
    EXPECT_FALSE(is_loopback({"128.0.0.1", 1}));
    EXPECT_FALSE(is_loopback({"0.0.0.0", 1}));
    EXPECT_FALSE(is_loopback({"::", 1}));
    EXPECT_FALSE(is_loopback({"::ffff:127.0.0.1", 1}));
}

TEST(MetricsJsonTest, SamplesByNameCommentsLeftOut) {
    const nlohmann::json values = metrics_json(
        "# HELP quillmarwriter_calls_open Calls open\n"
        "# TYPE quillmarwriter_calls_open gauge\n"
        "quillmarwriter_calls_open 3\n"
        "quillmarwriter_rate{side=\"0\"} 0.5\n"
        "garbage\n"
        "quillmarwriter_bad x1\n");
    EXPECT_EQ(values, (nlohmann::json{{"quillmarwriter_calls_open", 3},
                                      {"quillmarwriter_rate{side=\"0\"}", 0.5}}));
}

// "anna:correct horse" and "anna:pass:word" in base64.
TEST(BasicAuthTest, TakesNameAndPasswordOfABasicHeader) {
    const std::optional<Credentials> anna = basic_credentials("Basic YW5uYTpjb3JyZWN0IGhvcnNl");
    ASSERT_TRUE(anna);
    EXPECT_EQ(anna->name, "anna");
    EXPECT_EQ(anna->password, "correct horse");
    const std::optional<Credentials> colon = basic_credentials("Basic YW5uYTpwYXNzOndvcmQ=");
    ASSERT_TRUE(colon);
    EXPECT_EQ(colon->password, "pass:word");
}

TEST(BasicAuthTest, RefusesOtherSchemesBadBase64AndNoColon) {
    for (const char* header : {"", "Bearer YW5uYTpjb3JyZWN0IGhvcnNl", "Basic", "Basic !!!!",
                               "basic YW5uYTpjb3JyZWN0IGhvcnNl", "Basic YW5uYQ=="}) {
        EXPECT_FALSE(basic_credentials(header)) << header;
    }
}

}  // namespace
}  // namespace qm::web
