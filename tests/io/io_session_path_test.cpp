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
    // 2021-10-11 12:17:18.004211 UTC.
    EXPECT_EQ(session_path(1633954638004211ULL, UUID),
              "2021-10-11/12/17/" + UUID_TEXT + "/media.qm");
    // One microsecond before the minute ends, and the minute itself.
    EXPECT_EQ(session_path(1633954679999999ULL, UUID),
              "2021-10-11/12/17/" + UUID_TEXT + "/media.qm");
    EXPECT_EQ(session_path(1633954680000000ULL, UUID),
              "2021-10-11/12/18/" + UUID_TEXT + "/media.qm");
}

// With a 64-bit time_t every 64-bit count of microseconds renders (the year has six digits at
// the far end), so the all-zero fallback is never needed on this platform.
TEST(SessionPathTest, LargestTimeStampStillRenders) {
    test::LogCapture capture;

    EXPECT_EQ(session_path(std::numeric_limits<std::uint64_t>::max(), UUID),
              "586524-01-19/08/01/" + UUID_TEXT + "/media.qm");
    EXPECT_TRUE(capture.texts().empty());
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
