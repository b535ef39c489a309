#include "web/access_log.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include "child_process.hpp"
#include "temp_directory.hpp"

namespace qm::web {
namespace {

using namespace std::chrono;
using test::read_file;
using test::TempDirectory;

const AccessLog::Time AT =
    sys_days(year(2026) / 11 / 24) + hours(15) + minutes(32) + seconds(33) + milliseconds(7);
const char* const UUID = "0f8e2c1a-3b4d-4e5f-8a9b-0c1d2e3f4a5b";

TEST(AccessLogTest, OneLinePerEventWithTheUtcTimeInMilliseconds) {
    EXPECT_EQ(AccessLog::line("anna", "192.0.2.7", UUID, Access::PLAY, AT),
              "2026-11-24T15:32:33.007Z user=anna address=192.0.2.7 "
              "uuid=0f8e2c1a-3b4d-4e5f-8a9b-0c1d2e3f4a5b what=play\n");
    EXPECT_EQ(AccessLog::line("bob", "2001:db8::1", UUID, Access::DOWNLOAD, AT + hours(9)),
              "2026-11-25T00:32:33.007Z user=bob address=2001:db8::1 "
              "uuid=0f8e2c1a-3b4d-4e5f-8a9b-0c1d2e3f4a5b what=download\n");
    EXPECT_EQ(AccessLog::line("bob", "::1", "x", Access::VIEW, AT),
              "2026-11-24T15:32:33.007Z user=bob address=::1 uuid=x what=view\n");
}

TEST(AccessLogTest, WhatCouldSplitALineIsWrittenAsQuestionMarks) {
    EXPECT_EQ(AccessLog::line("a b", "1\n2", "u\xc3\xa4 what=view", Access::PLAY, AT),
              "2026-11-24T15:32:33.007Z user=a?b address=1?2 uuid=u???what=view what=play\n");
}

TEST(AccessLogTest, RecordAppendsToTheFileCreatedWithMode0640) {
    const TempDirectory directory;
    const std::string path = (directory.path() / "access.log").string();
    const mode_t old_mask = ::umask(0);
    std::string error;
    std::unique_ptr<AccessLog> log = AccessLog::open(path, error);
    ::umask(old_mask);
    ASSERT_TRUE(log) << error;
    EXPECT_TRUE(log->record("anna", "192.0.2.7", UUID, Access::PLAY, AT));
    EXPECT_TRUE(log->record("anna", "192.0.2.7", UUID, Access::DOWNLOAD, AT + milliseconds(1)));

    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(read_file(path),
              "2026-11-24T15:32:33.007Z user=anna address=192.0.2.7 "
              "uuid=0f8e2c1a-3b4d-4e5f-8a9b-0c1d2e3f4a5b what=play\n"
              "2026-11-24T15:32:33.008Z user=anna address=192.0.2.7 "
              "uuid=0f8e2c1a-3b4d-4e5f-8a9b-0c1d2e3f4a5b what=download\n");
    EXPECT_EQ(log->failures(), 0u);
}

TEST(AccessLogTest, AnExistingLogIsAppendedTo) {
    const TempDirectory directory;
    const std::string path = directory.write_file("access.log", "earlier\n");
    std::string error;
    std::unique_ptr<AccessLog> log = AccessLog::open(path, error);
    ASSERT_TRUE(log) << error;
    EXPECT_TRUE(log->record("anna", "::1", "x", Access::VIEW, AT));
    EXPECT_EQ(read_file(path),
              "earlier\n2026-11-24T15:32:33.007Z user=anna address=::1 uuid=x what=view\n");
}

TEST(AccessLogTest, AFailedWriteIsCountedNotThrown) {
    std::string error;
    // Every write to /dev/full fails with ENOSPC.
    std::unique_ptr<AccessLog> log = AccessLog::open("/dev/full", error);
    ASSERT_TRUE(log) << error;
    EXPECT_FALSE(log->record("anna", "::1", "x", Access::PLAY, AT));
    EXPECT_FALSE(log->record("anna", "::1", "x", Access::PLAY, AT));
    EXPECT_EQ(log->failures(), 2u);
}

TEST(AccessLogTest, OpenSaysWhyItCannot) {
    const TempDirectory directory;
    const std::string path = (directory.path() / "none" / "access.log").string();
    std::string error;
    EXPECT_EQ(AccessLog::open(path, error), nullptr);
    EXPECT_EQ(error, path + ": No such file or directory");
}

TEST(AccessLogTest, LinesFromManyThreadsStayWhole) {
    const TempDirectory directory;
    const std::string path = (directory.path() / "access.log").string();
    std::string error;
    std::unique_ptr<AccessLog> log = AccessLog::open(path, error);
    ASSERT_TRUE(log) << error;
    constexpr int THREADS = 4;
    constexpr int LINES = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < LINES; ++i) {
                log->record("user" + std::to_string(t), "::1", UUID, Access::PLAY, AT);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<int> per_user(THREADS, 0);
    for (const std::string& line : test::split_lines(read_file(path))) {
        for (int t = 0; t < THREADS; ++t) {
            if (line + "\n" ==
                AccessLog::line("user" + std::to_string(t), "::1", UUID, Access::PLAY, AT)) {
                ++per_user[static_cast<std::size_t>(t)];
            }
        }
    }
    EXPECT_EQ(per_user, std::vector<int>(THREADS, LINES));
    EXPECT_EQ(log->failures(), 0u);
}

}  // namespace
}  // namespace qm::web
