// Storage cleanup on the running recorder, over a storage tree the test fills itself and measures
// with the "du" algorithm, so that the numbers are the test's own.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "media/packet_encoder.hpp"
#include "recorder_e2e.hpp"
#include "recording_bytes.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;
namespace {

using namespace std::chrono_literals;

// The default start packet's leg lands under 2021-10-11/12/17, newer than every day below.
const std::string LEG_FILE = "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff/media.qm";
const std::string LEG_MINUTE = "2021-10-11/12/17";

// Every byte is over the threshold, and a buffer of 400 bytes holds the file header and one frame
// of 160 samples (48 + 332 bytes), so that the second frame makes the writer write the first.
const std::string OVER_THE_THRESHOLD =
    "storage_cleanup_algo = du\nstorage_cleanup_policy = minute\n"
    "storage_cleanup_threshold = 1\nstorage_cleanup_timer = 100ms\nmedia_buffer_size = 400\n";

DataFields frame(std::uint32_t seq) {
    DataFields data;
    data.seq = seq;
    data.off = (seq - 1) * 160;
    data.header.mt = 1000 + 20 * seq;
    data.payload.assign(160, static_cast<std::uint16_t>(seq));
    return data;
}

class CleanupE2eTest : public RecorderE2eTest {
protected:
    void file(const std::string& relative, std::size_t size) const {
        std::filesystem::create_directories((storage() / relative).parent_path());
        directory.write_file("storage/" + relative, std::string(size, 'r'));
    }

    std::string removed(const std::string& relative) const {
        return "STORAGE_MANAGER: removed: " + (storage() / relative).string();
    }

    // Polls until the leg's file holds `size` bytes.
    bool leg_file_reaches(std::uintmax_t size) const {
        return poll_until(
            [&] {
                std::error_code error;
                return std::filesystem::file_size(storage() / LEG_FILE, error) == size;
            },
            TIMEOUT);
    }

    // The default leg's start and its first two frames: the writer has made the leg's
    // directories and written the header and the first frame.
    void record_two_frames() const {
        send(encode_start());
        send(encode_data(frame(1)));
        send(encode_data(frame(2)));
    }

    std::vector<std::string> storage_texts(const ChildProcess& process) const {
        std::vector<std::string> selected;
        for (const LogLine& line : log_lines(process)) {
            if (line.file == "storage_manager.cpp") {
                selected.push_back(line.text);
            }
        }
        return selected;
    }
};

// Three minutes of 1000 bytes each against a threshold of 2500: the first pass, at start, removes
// the oldest minute only (its hour still holds another); a recorded leg then tips the measure over
// again, and a later pass removes the next minute with its emptied hour and day. The newest day and
// the leg being recorded stay.
TEST_F(CleanupE2eTest, PassesRemoveTheOldestMinutesUntilBelowTheThreshold) {
    file("2020-01-01/00/00/a/media.qm", 1000);
    file("2020-01-01/00/01/b/media.qm", 1000);
    file("2020-01-02/10/30/c/media.qm", 1000);
    ChildProcess& process = start_recorder(
        "storage_cleanup_algo = du\nstorage_cleanup_policy = minute\n"
        "storage_cleanup_threshold = 2500\nstorage_cleanup_timer = 1s\n");
    ASSERT_TRUE(process.wait_for_line(removed("2020-01-01/00/00"), TIMEOUT));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2020-01-01/00/01/b/media.qm"));

    // A leg of 48 + 4 x 332 = 1376 bytes: 2000 + 1376 is over the threshold again.
    send(encode_start());
    for (std::uint32_t seq = 1; seq <= 4; ++seq) {
        DataFields data;
        data.seq = seq;
        data.off = (seq - 1) * 160;
        data.header.mt = 1000 + 20 * seq;
        data.payload.assign(160, 7);
        send(encode_data(data));
    }
    send(encode_terminate());
    ASSERT_TRUE(poll_until(
        [&] {
            std::error_code error;
            return std::filesystem::file_size(storage() / LEG_FILE, error) == 1376;
        },
        TIMEOUT));
    ASSERT_TRUE(poll_until(
        [&] {
            const std::vector<std::string> texts = storage_texts(process);
            return std::find(texts.begin(), texts.end(), removed("2020-01-01")) != texts.end();
        },
        TIMEOUT))
        << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<std::string> texts = storage_texts(process);
    const std::vector<std::string> removals = [&] {
        std::vector<std::string> only;
        for (const std::string& text : texts) {
            if (text.rfind("STORAGE_MANAGER: removed: ", 0) == 0) {
                only.push_back(text);
            }
        }
        return only;
    }();
    EXPECT_EQ(removals,
              (std::vector<std::string>{removed("2020-01-01/00/00"), removed("2020-01-01/00/01"),
                                        removed("2020-01-01/00"), removed("2020-01-01")}));
    EXPECT_EQ(texts[0], "STORAGE_MANAGER: cleanup started");
    EXPECT_EQ(texts[1], "STORAGE_MANAGER: space: used (3000) >= threshold (2500): exceeded");
    EXPECT_EQ(texts[2], removed("2020-01-01/00/00"));
    EXPECT_EQ(texts[3], "STORAGE_MANAGER: space: used (2000) < threshold (2500): good");
    EXPECT_EQ(texts[4], "STORAGE_MANAGER: cleanup stopped");
    const auto exceeded_again =
        std::find(texts.begin(), texts.end(),
                  "STORAGE_MANAGER: space: used (3376) >= threshold (2500): exceeded");
    ASSERT_NE(exceeded_again, texts.end());
    EXPECT_EQ(*(exceeded_again + 1), removed("2020-01-01/00/01"));
    EXPECT_EQ(*(exceeded_again + 4),
              "STORAGE_MANAGER: space: used (2376) < threshold (2500): good");
    EXPECT_TRUE(std::filesystem::exists(storage() / "2020-01-02/10/30/c/media.qm"));
    EXPECT_EQ(std::filesystem::file_size(storage() / LEG_FILE), 1376u);
}

// Root removes anything, so the recorder runs as nobody over a day directory that only root may
// change: the removal fails, the same day comes up again and the pass ends there.
TEST_F(CleanupE2eTest, DirectoryThatCannotBeRemovedEndsThePassAndTheRecorderStaysUp) {
    file("2020-01-01/00/00/a/media.qm", 1000);
    const std::string config = directory.write_file(
        "writer.conf", "storage = " + storage().string() +
                           "\nport = " + std::to_string(pick_port()) +
                           "\nstorage_cleanup_algo = du\nstorage_cleanup_policy = day\n"
                           "storage_cleanup_threshold = 10\nstorage_cleanup_timer = 1h\n");
    ChildProcess& process = start_unprivileged({"--config", config});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();

    EXPECT_FALSE(process.wait_exit(0ms).has_value()) << "the recorder did not stay up";
    const ExitStatus status = stop(process);
    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<std::string> texts = storage_texts(process);
    ASSERT_GE(texts.size(), 7u) << process.standard_error();
    EXPECT_EQ(texts[1], "STORAGE_MANAGER: space: used (1000) >= threshold (10): exceeded");
    EXPECT_EQ(texts[2].rfind("STORAGE_MANAGER: failed to remove, error: ", 0), 0u) << texts[2];
    EXPECT_EQ(texts[3], "STORAGE_MANAGER: space: used (1000) >= threshold (10): exceeded");
    EXPECT_EQ(texts[4], "STORAGE_MANAGER: infinite removing loop detected for path: " +
                            (storage() / "2020-01-01").string());
    EXPECT_EQ(texts[5], "STORAGE_MANAGER: cleanup stopped");
    EXPECT_TRUE(std::filesystem::exists(storage() / "2020-01-01/00/00/a/media.qm"));
}

TEST_F(CleanupE2eTest, DisabledPolicyStartsNoThreadAndRemovesNothing) {
    file("2020-01-01/00/00/a/media.qm", 1000);
    ChildProcess& process = start_recorder(
        "storage_cleanup_algo = du\nstorage_cleanup_policy = disabled\n"
        "storage_cleanup_threshold = 10\nstorage_cleanup_timer = 1s\n");
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(storage_texts(process),
              (std::vector<std::string>{
                  "STORAGE_MANAGER: cleanup started",
                  "STORAGE_MANAGER: space: used (1000) >= threshold (10): exceeded",
                  "STORAGE_MANAGER: cleanup is disabled", "STORAGE_MANAGER: cleanup stopped"}));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2020-01-01/00/00/a/media.qm"));
}

// A leg being recorded while the storage is over the threshold: its minute is spared pass after
// pass, while another leg still writes into it after the first ended, and the first leg's file is
// whole.
TEST_F(CleanupE2eTest, OpenLegsMinuteIsSparedWhenAskedAndItsFileIsWhole) {
    ChildProcess& process =
        start_recorder(OVER_THE_THRESHOLD + "storage_cleanup_spare_open_legs = true\n");
    StartFields second;
    second.header.id = 2;
    second.header.uuid[15] = 0x01;
    const std::string spared_while =
        "STORAGE_MANAGER: spared " + (storage() / LEG_MINUTE).string() + ": it holds ";

    record_two_frames();
    send(encode_start(second));
    ASSERT_TRUE(leg_file_reaches(48 + 332)) << process.standard_error();
    ASSERT_TRUE(process.wait_for_line(spared_while + "2 legs still being recorded", TIMEOUT))
        << process.standard_error();
    send(encode_data(frame(3)));
    send(encode_data(frame(4)));
    send(encode_terminate());
    ASSERT_TRUE(leg_file_reaches(48 + 4 * 332)) << process.standard_error();
    ASSERT_TRUE(process.wait_for_line(spared_while + "1 legs still being recorded", TIMEOUT))
        << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(read_file(storage() / LEG_FILE),
              text_of(recording_bytes(StartFields{}, {frame(1), frame(2), frame(3), frame(4)})));
    for (const std::string& text : storage_texts(process)) {
        EXPECT_EQ(text.find("STORAGE_MANAGER: removed"), std::string::npos) << text;
    }
}

// Without the key the minute being recorded goes, and the rest of the leg with it: the writer
// does not make a directory again once it made it.
TEST_F(CleanupE2eTest, OpenLegsMinuteIsRemovedWhenNotSpared) {
    ChildProcess& process = start_recorder(OVER_THE_THRESHOLD);

    // The writer made the minute to write the first frame, and a pass removed it; the file itself
    // may be gone before a poll could see it.
    record_two_frames();
    ASSERT_TRUE(process.wait_for_line(removed("2021-10-11"), TIMEOUT)) << process.standard_error();
    send(encode_data(frame(3)));
    send(encode_data(frame(4)));
    send(encode_terminate());
    ASSERT_TRUE(process.wait_for_line(
        "MEDIA_WRITER: failed to open file " + (storage() / LEG_FILE).string(), TIMEOUT))
        << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_FALSE(std::filesystem::exists(storage() / LEG_MINUTE));
    const std::vector<std::string> texts = storage_texts(process);
    const auto minute = std::find(texts.begin(), texts.end(), removed(LEG_MINUTE));
    ASSERT_NE(minute, texts.end()) << process.standard_error();
    EXPECT_EQ(*(minute + 1), removed("2021-10-11/12"));
    EXPECT_EQ(*(minute + 2), removed("2021-10-11"));
}

using Clock = std::chrono::system_clock;

// The minute directory the writer names a time by, in UTC, relative to the storage.
std::string minute_directory(Clock::time_point when) {
    const auto day = std::chrono::floor<std::chrono::days>(when);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(std::chrono::floor<std::chrono::minutes>(when - day));
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u/%02ld/%02ld", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<long>(time.hours().count()),
                  static_cast<long>(time.minutes().count()));
    return text;
}

std::int64_t whole_seconds(Clock::duration duration) {
    return std::chrono::floor<std::chrono::seconds>(duration).count();
}

// The minutes (relative to `storage`) that the lines say the age rule removed, each with the age
// in seconds its line names; a minute named twice fails the test.
std::map<std::string, std::int64_t> removed_by_age(const std::vector<std::string>& texts,
                                                   const std::filesystem::path& storage) {
    static const std::regex by_age(
        R"(STORAGE_MANAGER: removed by age: (.+): ended (?:(\d+)m)?(?:(\d+)s)? ago, )"
        R"(storage_max_age 2m)");
    std::map<std::string, std::int64_t> ages;
    for (const std::string& text : texts) {
        std::smatch match;
        if (std::regex_match(text, match, by_age)) {
            const std::string minute =
                std::filesystem::path(match[1].str()).lexically_relative(storage).string();
            EXPECT_EQ(ages.count(minute), 0u) << text;
            ages[minute] = (match[2].matched ? std::stoll(match[2]) * 60 : 0) +
                           (match[3].matched ? std::stoll(match[3]) : 0);
        }
    }
    return ages;
}

long passes(const std::vector<std::string>& texts) {
    return std::count(texts.begin(), texts.end(), "STORAGE_MANAGER: cleanup stopped");
}

// Minutes from ten minutes ago to now, each with a small file, and a leg recorded now: the first
// pass, at start, removes every minute that ended at least two minutes before, each with one line
// naming its age, and nothing else; the leg is written whole through the passes that follow. A
// minute is only judged when the whole start-up lies on one side of its limit.
TEST_F(CleanupE2eTest, MaxAgeRemovesEveryMinuteThatOldAndLeavesTheLegBeingRecorded) {
    using std::chrono::minutes;
    const Clock::time_point before = Clock::now();
    const Clock::time_point current = std::chrono::floor<minutes>(before);
    std::map<std::string, Clock::time_point> ends;
    for (int back = 10; back >= 0; --back) {
        const std::string minute = minute_directory(current - minutes(back));
        file(minute + "/a/media.qm", 10);
        ends[minute] = current - minutes(back) + minutes(1);
    }
    ChildProcess& process = start_recorder(
        "storage_cleanup_algo = du\nstorage_cleanup_threshold = 1T\nstorage_cleanup_timer = 1s\n"
        "storage_max_age = 2m\nmedia_buffer_size = 400\n");
    const Clock::time_point started = Clock::now();

    // The first pass ran before the recorder received.
    const std::vector<std::string> texts = storage_texts(process);
    const std::map<std::string, std::int64_t> removed_ages = removed_by_age(
        {texts.begin(), std::find(texts.begin(), texts.end(), "STORAGE_MANAGER: cleanup stopped")},
        storage());
    std::size_t judged_gone = 0;
    for (const auto& [minute, end] : ends) {
        const bool exists = std::filesystem::exists(storage() / minute / "a/media.qm");
        // Read after the check: a minute younger than the limit then was younger before.
        const Clock::time_point checked = Clock::now();
        if (before - end >= minutes(2)) {
            ++judged_gone;
            EXPECT_FALSE(exists) << minute;
            ASSERT_EQ(removed_ages.count(minute), 1u) << minute << "\n" << process.standard_error();
            EXPECT_GE(removed_ages.at(minute), whole_seconds(before - end)) << minute;
            EXPECT_LE(removed_ages.at(minute), whole_seconds(started - end)) << minute;
        } else if (checked - end < minutes(2)) {
            EXPECT_TRUE(exists) << minute;
            EXPECT_EQ(removed_ages.count(minute), 0u) << minute;
        }
    }
    // Minutes 3 to 10 back ended at least two minutes before the start, whatever its second.
    EXPECT_GE(judged_gone, 8u);
    for (const auto& [minute, age] : removed_ages) {
        EXPECT_EQ(ends.count(minute), 1u) << minute;
    }

    // A leg stamped now, kept open by its frames while passes run.
    StartFields start;
    start.ts = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
            .count());
    const std::string leg_file =
        minute_directory(Clock::time_point(std::chrono::microseconds(start.ts))) +
        "/00112233-4455-6677-8899-aabbccddeeff/media.qm";
    send(encode_start(start));
    send(encode_data(frame(1)));
    send(encode_data(frame(2)));
    ASSERT_TRUE(poll_until(
        [&] {
            std::error_code error;
            return std::filesystem::file_size(storage() / leg_file, error) == 48 + 332;
        },
        TIMEOUT))
        << process.standard_error();
    const long passes_before = passes(storage_texts(process));
    ASSERT_TRUE(
        poll_until([&] { return passes(storage_texts(process)) >= passes_before + 2; }, TIMEOUT))
        << process.standard_error();
    send(encode_data(frame(3)));
    send(encode_data(frame(4)));
    ASSERT_TRUE(poll_until(
        [&] {
            std::error_code error;
            return std::filesystem::file_size(storage() / leg_file, error) == 48 + 3 * 332;
        },
        TIMEOUT))
        << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(read_file(storage() / leg_file),
              text_of(recording_bytes(start, {frame(1), frame(2), frame(3)})));
    // Later passes may take the minutes that aged since, each once; never the leg's minute.
    const std::vector<std::string> all = storage_texts(process);
    for (const auto& [minute, age] : removed_by_age(all, storage())) {
        EXPECT_EQ(ends.count(minute), 1u) << minute;
    }
    const std::string leg_minute = leg_file.substr(0, leg_file.find('/', 14));
    for (const std::string& text : all) {
        EXPECT_EQ(text.find(leg_minute), std::string::npos) << text;
    }
}

// A sender whose clock is five minutes behind starts a leg in a minute that is old already: with
// the default settings (open legs not spared for the size rule) the age still spares it while it is
// recorded, the file is whole, and a pass after its end removes it.
TEST_F(CleanupE2eTest, MaxAgeSparesALegStampedInAnOldMinuteUntilItEnds) {
    ChildProcess& process = start_recorder(
        "storage_cleanup_algo = du\nstorage_cleanup_threshold = 1T\n"
        "storage_cleanup_timer = 100ms\nstorage_max_age = 2m\nmedia_buffer_size = 400\n");
    StartFields start;
    start.ts =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                       (Clock::now() - std::chrono::minutes(5)).time_since_epoch())
                                       .count());
    const std::string minute =
        (storage() / minute_directory(Clock::time_point(std::chrono::microseconds(start.ts))))
            .string();
    const std::string leg_file = minute + "/00112233-4455-6677-8899-aabbccddeeff/media.qm";

    send(encode_start(start));
    send(encode_data(frame(1)));
    send(encode_data(frame(2)));
    ASSERT_TRUE(process.wait_for_line(
        "STORAGE_MANAGER: spared " + minute + ": it holds 1 legs still being recorded", TIMEOUT))
        << process.standard_error();
    send(encode_data(frame(3)));
    send(encode_data(frame(4)));
    send(encode_terminate());
    ASSERT_TRUE(poll_until(
        [&] {
            std::error_code error;
            return std::filesystem::file_size(leg_file, error) == 48 + 4 * 332;
        },
        TIMEOUT))
        << process.standard_error();
    EXPECT_EQ(read_file(leg_file),
              text_of(recording_bytes(start, {frame(1), frame(2), frame(3), frame(4)})));
    ASSERT_TRUE(
        process.wait_for_line("STORAGE_MANAGER: removed by age: " + minute + ": ended ", TIMEOUT))
        << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_FALSE(std::filesystem::exists(minute));
    EXPECT_EQ(removed_by_age(storage_texts(process), storage()).size(), 1u);
    EXPECT_EQ(process.standard_error().find("MEDIA_WRITER: failed"), std::string::npos)
        << process.standard_error();
}

}  // namespace
}  // namespace qm::test
