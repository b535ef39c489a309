#include "utils/time.hpp"

#include <gtest/gtest.h>

namespace qm::utils::time {
namespace {

constexpr std::uint64_t UNTOUCHED = 777;

struct TimerCase {
    const char* text;
    bool parsed;
    std::uint64_t microseconds;
};

void expect_timer(const TimerCase& timer) {
    std::uint64_t out = UNTOUCHED;
    EXPECT_EQ(try_parse_timer(timer.text, out), timer.parsed) << timer.text;
    EXPECT_EQ(out, timer.microseconds) << timer.text;
}

TEST(TryParseTimerTest, EachSuffixMultiplies) {
    expect_timer({"30s", true, 30000000});
    expect_timer({"250ms", true, 250000});
    expect_timer({"2m", true, 120000000});
    expect_timer({"1h", true, 3600000000});
    expect_timer({"2d", true, 172800000000});
    expect_timer({"1500", true, 1500});
}

TEST(TryParseTimerTest, NanosecondSuffixIsAcceptedButNotConverted) {
    expect_timer({"5ns", true, 5});
}

TEST(TryParseTimerTest, SuffixMustFollowTheDigitsExactly) {
    expect_timer({"30 s", false, 30});
    expect_timer({"30S", false, 30});
    expect_timer({"30sec", false, 30});
    expect_timer({"30us", false, 30});
    expect_timer({"30s ", false, 30});
}

TEST(TryParseTimerTest, NoDigitsFailsAndLeavesOutAlone) {
    expect_timer({"", false, UNTOUCHED});
    expect_timer({"s", false, UNTOUCHED});
    expect_timer({"  ", false, UNTOUCHED});
}

TEST(TryParseTimerTest, ConversionOverflowFails) {
    expect_timer({"18446744073709551616s", false, UNTOUCHED});
}

// strtoul would take "-1" as 2^64 - 1.
TEST(TryParseTimerTest, NegativeTimerFailsAndLeavesOutAlone) {
    expect_timer({"-1", false, UNTOUCHED});
    expect_timer({"-1s", false, UNTOUCHED});
    expect_timer({" -5m", false, UNTOUCHED});
    expect_timer({"-0", false, UNTOUCHED});
}

TEST(TryParseTimerTest, ProductThatOverflowsFailsAndKeepsThePlainNumber) {
    // 2^64 / 1000 rounded up, times 1000, is 2^64 + 384.
    expect_timer({"18446744073709552ms", false, 18446744073709552});
    expect_timer({"213503983d", false, 213503983});
}

TEST(TryParseTimerTest, LongestTimerIs36500Days) {
    expect_timer({"36500d", true, MAX_TIMER_US});
    expect_timer({"876000h", true, MAX_TIMER_US});
    expect_timer({"3153600000000000", true, 3153600000000000});
    expect_timer({"36501d", false, 36501});
    expect_timer({"3153600000000001", false, 3153600000000001});
    expect_timer({"18446744073709551615", false, 18446744073709551615u});
}

}  // namespace
}  // namespace qm::utils::time
