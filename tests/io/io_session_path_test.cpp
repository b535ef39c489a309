#include "io/io_session_path.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <limits>
#include <string>

#include "log_capture.hpp"

namespace qm::io {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

constexpr Uuid UUID = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                       0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
const std::string UUID_TEXT = "00112233-4455-6677-8899-aabbccddeeff";

TEST(SessionPathTest, StartOfTheEpochIsItsOwnDayHourAndMinute) {
    EXPECT_EQ(session_path(0, UUID), "1970-01-01/00/00/" + UUID_TEXT + "/media.qm");
}

TEST(SessionPathTest, TimeIsTakenInWholeSecondsInUtc) {
    test::LogCapture capture;
    // 2021-10-11 12:17:18.004211 UTC.
    EXPECT_EQ(session_path(1633954638004211ULL, UUID),
              "2021-10-11/12/17/" + UUID_TEXT + "/media.qm");
    // One microsecond before the minute ends, and the minute itself.
    EXPECT_EQ(session_path(1633954679999999ULL, UUID),
              "2021-10-11/12/17/" + UUID_TEXT + "/media.qm");
    EXPECT_EQ(session_path(1633954680000000ULL, UUID),
              "2021-10-11/12/18/" + UUID_TEXT + "/media.qm");
    EXPECT_TRUE(capture.lines().empty());
}

std::string clamped_text(std::uint64_t ts, const std::string& time_path) {
    return "QUILLMAR_IO: timestamp (" + std::to_string(ts) + ") of session \"" + UUID_TEXT +
           "\" is outside the years 1970 to 9999: filed under \"" + time_path + "/" + UUID_TEXT +
           "/media.qm\"";
}

// The first and the last microsecond of the years 1970 to 9999 are filed as they are.
TEST(SessionPathTest, BothEndsOfTheYears1970To9999AreTheirOwnMinutes) {
    test::LogCapture capture;

    EXPECT_EQ(session_path(0, UUID), "1970-01-01/00/00/" + UUID_TEXT + "/media.qm");
    EXPECT_EQ(session_path(253402300799999999ULL, UUID),
              "9999-12-31/23/59/" + UUID_TEXT + "/media.qm");
    EXPECT_TRUE(capture.lines().empty());
}

// A sender's clock before 1970 sends a negative time stamp: as a signed count, the top bit is set.
TEST(SessionPathTest, TimeBefore1970IsFiledUnderTheFirstMinuteOf1970) {
    test::LogCapture capture;
    const std::uint64_t one_microsecond_before = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t earliest = 1ULL << 63;

    EXPECT_EQ(session_path(one_microsecond_before, UUID),
              "1970-01-01/00/00/" + UUID_TEXT + "/media.qm");
    EXPECT_EQ(session_path(earliest, UUID), "1970-01-01/00/00/" + UUID_TEXT + "/media.qm");
    EXPECT_THAT(capture.texts(),
                ElementsAre(clamped_text(one_microsecond_before, "1970-01-01/00/00"),
                            clamped_text(earliest, "1970-01-01/00/00")));
    EXPECT_THAT(capture.lines(), ElementsAre(StartsWith("WARNING | io_session_path.cpp:"),
                                             StartsWith("WARNING | io_session_path.cpp:")));
}

// Year 10000 would be a five-digit day the cleanup does not take for one, and it would sort before
// 9999's days.
TEST(SessionPathTest, TimeAfter9999IsFiledUnderTheLastMinuteOf9999) {
    test::LogCapture capture;
    const std::uint64_t year_10000 = 253402300800000000ULL;
    const std::uint64_t latest = (1ULL << 63) - 1;

    EXPECT_EQ(session_path(year_10000, UUID), "9999-12-31/23/59/" + UUID_TEXT + "/media.qm");
    EXPECT_EQ(session_path(latest, UUID), "9999-12-31/23/59/" + UUID_TEXT + "/media.qm");
    EXPECT_THAT(capture.texts(), ElementsAre(clamped_text(year_10000, "9999-12-31/23/59"),
                                             clamped_text(latest, "9999-12-31/23/59")));
}

// A second past the last year the calendar holds: gmtime_r fails, and the session is filed under
// the all-zero time with an ERROR line naming it.
TEST(SessionPathTest, SecondWithoutCalendarDateFallsBackToZeroTime) {
    test::LogCapture capture;

    EXPECT_EQ(detail::session_path_at(std::numeric_limits<std::time_t>::max(),
                                      std::numeric_limits<std::uint64_t>::max(), UUID),
              "0000-00-00/00/00/" + UUID_TEXT + "/media.qm");
    EXPECT_THAT(capture.texts(),
                ElementsAre("QUILLMAR_IO: unable to compose time path for session \""
                            "00112233-4455-6677-8899-aabbccddeeff\", timestamp "
                            "(18446744073709551615)"));
    EXPECT_THAT(capture.lines(), ElementsAre(StartsWith("ERROR   | io_session_path.cpp:")));
}

TEST(SessionPathTest, RenderableSecondLogsNothing) {
    test::LogCapture capture;

    EXPECT_EQ(detail::session_path_at(1633954638, 7, UUID),
              "2021-10-11/12/17/" + UUID_TEXT + "/media.qm");
    EXPECT_TRUE(capture.lines().empty());
}

}  // namespace
}  // namespace qm::io
