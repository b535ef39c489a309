#include "catalog/leg_summary.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace qm::catalog {
namespace {

LegSummary example() {
    LegSummary summary;
    summary.uuid = "00112233-4455-6677-8899-aabbccddeeff";
    summary.session_id = 81985529216486895;
    summary.call_id = "call-7@example";
    summary.leg = LegDirection::OUTBOUND;
    summary.flags = 0x8001;
    summary.start_us = 1633954638004211;
    summary.last_packet_us = 1633954640000009;
    summary.closed_by = LegClose::TIMEOUT;
    summary.sides[0] = {3, 480, 0, 320, 1};
    summary.sides[1] = {};
    summary.bytes = 1060;
    summary.host = "rec-1";
    summary.port = 9000;
    summary.path = "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff";
    return summary;
}

const std::string EXAMPLE_TEXT = R"({
  "schema": 1,
  "uuid": "00112233-4455-6677-8899-aabbccddeeff",
  "session_id": 81985529216486895,
  "call_id": "call-7@example",
  "leg": "outbound",
  "flags": 32769,
  "start_us": 1633954638004211,
  "start_utc": "2021-10-11T12:17:18.004211Z",
  "last_packet_us": 1633954640000009,
  "last_packet_utc": "2021-10-11T12:17:20.000009Z",
  "closed_by": "timeout",
  "sides": [
    {
      "side": 0,
      "frames": 3,
      "samples": 480,
      "first_offset": 0,
      "last_offset": 320,
      "lost_packets": 1
    },
    {
      "side": 1,
      "frames": 0,
      "samples": 0,
      "first_offset": null,
      "last_offset": null,
      "lost_packets": 0
    }
  ],
  "bytes": 1060,
  "recorder": {
    "host": "rec-1",
    "port": 9000
  },
  "path": "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff"
}
)";

// The example's text with the first occurrence of `from` replaced by `to`.
std::string edited(const std::string& from, const std::string& to) {
    std::string text = EXAMPLE_TEXT;
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

// The reason `parse` gives for `text`, which it must refuse.
std::string refusal(const std::string& text) {
    std::string reason;
    const std::optional<LegSummary> parsed = parse(text, reason);
    EXPECT_FALSE(parsed.has_value());
    return reason;
}

TEST(LegSummaryTest, RendersTheExampleExactly) {
    EXPECT_EQ(render(example()), EXAMPLE_TEXT);
}

TEST(LegSummaryTest, ParsesWhatItRendersBackToTheSameSummary) {
    std::string reason;
    const std::optional<LegSummary> parsed = parse(render(example()), reason);
    ASSERT_TRUE(parsed.has_value()) << reason;
    EXPECT_EQ(*parsed, example());
    EXPECT_EQ(reason, "");
}

TEST(LegSummaryTest, EveryCloseAndDirectionSurvivesTheRoundTrip) {
    for (LegClose closed_by :
         {LegClose::TERMINATE, LegClose::TIMEOUT, LegClose::STOP, LegClose::UNKNOWN}) {
        for (LegDirection leg : {LegDirection::INBOUND, LegDirection::OUTBOUND}) {
            LegSummary summary = example();
            summary.closed_by = closed_by;
            summary.leg = leg;
            std::string reason;
            EXPECT_EQ(parse(render(summary), reason), summary) << close_name(closed_by);
        }
    }
}

TEST(LegSummaryTest, TheDerivedUtcTextsAreNotRead) {
    std::string reason;
    const std::optional<LegSummary> parsed =
        parse(edited("\"start_utc\": \"2021-10-11T12:17:18.004211Z\",\n", ""), reason);
    ASSERT_TRUE(parsed.has_value()) << reason;
    EXPECT_EQ(*parsed, example());
}

TEST(LegSummaryTest, UtcTextHasMicrosecondsAndIsClampedToFourDigitYears) {
    EXPECT_EQ(utc_text(0), "1970-01-01T00:00:00.000000Z");
    EXPECT_EQ(utc_text(1633954638004211), "2021-10-11T12:17:18.004211Z");
    EXPECT_EQ(utc_text(253402300799999999), "9999-12-31T23:59:59.999999Z");
    EXPECT_EQ(utc_text(~0ull), "9999-12-31T23:59:59.999999Z");
}

TEST(LegSummaryTest, TruncatedTextIsRefused) {
    EXPECT_EQ(refusal(EXAMPLE_TEXT.substr(0, EXAMPLE_TEXT.size() / 2)), "not JSON (or cut short)");
    EXPECT_EQ(refusal(""), "not JSON (or cut short)");
}

TEST(LegSummaryTest, TextThatIsNotJsonIsRefused) {
    EXPECT_EQ(refusal("media.qm\n"), "not JSON (or cut short)");
    EXPECT_EQ(refusal("[1, 2]"), "not a JSON object");
}

TEST(LegSummaryTest, FieldsOfTheWrongTypeAreRefused) {
    EXPECT_EQ(refusal(edited("\"bytes\": 1060", "\"bytes\": \"1060\"")),
              "field \"bytes\" is not an unsigned 64-bit number");
    EXPECT_EQ(refusal(edited("\"bytes\": 1060", "\"bytes\": -1")),
              "field \"bytes\" is not an unsigned 64-bit number");
    EXPECT_EQ(refusal(edited("\"uuid\": \"00112233", "\"uuid\": 7, \"x\": \"")),
              "field \"uuid\" is not a string");
    EXPECT_EQ(refusal(edited("\"port\": 9000", "\"port\": 65536")),
              "field \"port\" is not an unsigned number in range");
    EXPECT_EQ(refusal(edited("\"leg\": \"outbound\"", "\"leg\": \"sideways\"")),
              "field \"leg\" has the unknown value \"sideways\"");
    EXPECT_EQ(refusal(edited("\"first_offset\": 0", "\"first_offset\": 4294967296")),
              "field \"first_offset\" is not an unsigned number in range");
    EXPECT_EQ(refusal(edited("\"recorder\": {", "\"recorder\": 1, \"x\": {")),
              "field \"recorder\" is not an object");
    EXPECT_EQ(refusal(edited("\"side\": 0", "\"side\": 1")), "side 0 is out of order");
}

TEST(LegSummaryTest, MissingFieldsAreRefused) {
    EXPECT_EQ(refusal(edited("\"call_id\": \"call-7@example\",\n", "")),
              "missing field \"call_id\"");
    EXPECT_EQ(refusal(edited("\"lost_packets\": 1\n", "\"lost\": 1\n")),
              "missing field \"lost_packets\"");
    EXPECT_EQ(refusal(edited("\"schema\": 1,\n", "")), "missing field \"schema\"");
}

TEST(LegSummaryTest, AnotherSchemaIsRefused) {
    EXPECT_EQ(refusal(edited("\"schema\": 1", "\"schema\": 2")), "schema 2 is not known");
}

}  // namespace
}  // namespace qm::catalog
