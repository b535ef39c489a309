#include "storage/storage_manager.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "poll.hpp"
#include "temp_directory.hpp"

namespace qm::storage {
namespace {

using ::testing::ElementsAre;

const std::string STARTED = "STORAGE_MANAGER: cleanup started";
const std::string STOPPED = "STORAGE_MANAGER: cleanup stopped";
const std::string UNKNOWN = "STORAGE_MANAGER: space check status [unknown]: 2";

// The real file system, except for the volume's figures and the failures a test asks for.
class FakeFileSystem : public FileSystem {
public:
    enum class Failure { none, standard, other };

    Space space(const std::string& path) override {
        switch (space_failure) {
            case Failure::standard:
                throw std::runtime_error("injected failure");
            case Failure::other:
                throw 42;
            case Failure::none:
                break;
        }
        return volume ? *volume : real.space(path);
    }
    std::uint64_t used_bytes(const std::string& path) override { return real.used_bytes(path); }
    Kind kind(const std::string& path) override { return real.kind(path); }
    void list(const std::string& path, std::vector<std::string>& entries) override {
        real.list(path, entries);
    }
    std::error_code remove_tree(const std::string& path) override {
        if (unremovable.count(path) != 0) {
            return std::make_error_code(std::errc::permission_denied);
        }
        return real.remove_tree(path);
    }
    std::error_code remove(const std::string& path) override { return real.remove(path); }
    std::chrono::system_clock::time_point now() override { return clock ? *clock : real.now(); }

    // What `space` reports instead of the volume's own figures.
    std::optional<Space> volume;
    Failure space_failure = Failure::none;
    // Paths whose removal fails as if permission were denied.
    std::set<std::string> unremovable;
    // What `now` reports instead of the wall clock.
    std::optional<std::chrono::system_clock::time_point> clock;

private:
    FileSystem& real = real_file_system();
};

class StorageManagerTest : public ::testing::Test {
protected:
    StorageManagerTest() {
        settings.storage_cleanup_algo = cleanup_algo::DU;
        std::filesystem::create_directories(storage());
    }

    // A file of `size` bytes at `relative` under the storage directory.
    void file(const std::string& relative, std::size_t size) const {
        std::filesystem::create_directories((storage() / relative).parent_path());
        directory.write_file("storage/" + relative, std::string(size, 'm'));
    }

    std::string path(const std::string& relative) const { return (storage() / relative).string(); }
    std::filesystem::path storage() const { return directory.path() / "storage"; }

    std::vector<std::string> pass() {
        StorageManager manager(storage().string(), settings, open_legs, files);
        manager.on_removed([this](std::string directory, std::uint64_t at_us) {
            reported.emplace_back(std::move(directory), at_us);
        });
        capture.clear();
        manager.cleanup();
        return capture.texts();
    }

    static std::string used(std::uint64_t bytes, std::uint64_t threshold) {
        const bool over = threshold <= bytes;
        return "STORAGE_MANAGER: space: used (" + std::to_string(bytes) + ")" +
               (over ? " >= " : " < ") + "threshold (" + std::to_string(threshold) +
               "): " + (over ? "exceeded" : "good");
    }
    static std::string percent(const std::string& used, const std::string& threshold, bool over) {
        return "STORAGE_MANAGER: space: used (" + used + "%)" + (over ? " >= " : " < ") +
               "threshold (" + threshold + "%): " + (over ? "exceeded" : "good");
    }
    // The volume reports these figures, and the pass measures it.
    void volume(std::uint64_t capacity, std::uint64_t free, std::uint64_t available) {
        settings.storage_cleanup_algo = cleanup_algo::DF;
        files.volume = FileSystem::Space{capacity, free, available};
    }
    std::string removed(const std::string& relative) const {
        return "STORAGE_MANAGER: removed: " + path(relative);
    }
    std::string removed_empty(const std::string& relative) const {
        return "STORAGE_MANAGER: removed empty directory: " + path(relative);
    }
    std::string removed_by_age(const std::string& relative, const std::string& age,
                               const std::string& limit) const {
        return "STORAGE_MANAGER: removed by age: " + path(relative) + ": ended " + age +
               " ago, storage_max_age " + limit;
    }
    // The wall clock stands at `since_midnight` on 2024-01-01, UTC.
    void now(std::chrono::microseconds since_midnight) {
        files.clock = std::chrono::sys_days(std::chrono::year(2024) / 1 / 1) + since_midnight;
    }

    test::TempDirectory directory;
    test::LogCapture capture;
    CleanupSettings settings;
    FakeFileSystem files;
    // Given to the manager once a test sets it.
    const writer::OpenLegs* open_legs = nullptr;
    // What the manager told of its removals: directory and time.
    std::vector<std::pair<std::string, std::uint64_t>> reported;
    writer::OpenLegs legs;
};

TEST_F(StorageManagerTest, DisabledPolicyStartsNoThread) {
    settings.storage_cleanup_policy = cleanup_policy::DISABLED;
    StorageManager manager(storage().string(), settings);

    EXPECT_EQ(manager.start(), 0);

    EXPECT_FALSE(manager.is_running());
    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(StorageManagerTest, TimerZeroWarnsOnEveryCallAndGivesTheDefault) {
    settings.storage_cleanup_timer = 0;
    const StorageManager manager(storage().string(), settings);

    EXPECT_EQ(manager.timer(), 60'000'000u);
    EXPECT_EQ(manager.timer(), 60'000'000u);

    const std::string warning = "STORAGE_MANAGER: adjusted timer to default value (60000000)";
    EXPECT_THAT(capture.texts(log::Level::WARNING), ElementsAre(warning, warning));
    settings.storage_cleanup_timer = 5;
    const StorageManager other(storage().string(), settings);
    EXPECT_EQ(other.timer(), 5u);
    EXPECT_EQ(capture.texts().size(), 2u);
}

TEST_F(StorageManagerTest, PassBelowTheThresholdOnlyMeasures) {
    settings.storage_cleanup_threshold = 1024.0L * 1024 * 1024;
    file("2024-01-01/00/00/leg/media.qm", 100);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(100, 1073741824), STOPPED));
}

TEST_F(StorageManagerTest, DuOnAnEmptyStorageIsZeroAndGood) {
    settings.storage_cleanup_threshold = 1;
    EXPECT_THAT(pass(), ElementsAre(STARTED, used(0, 1), STOPPED));
}

// A day holding one hour holding one minute: all three go, and the newer day stays.
TEST_F(StorageManagerTest, MinutePolicyRemovesTheMinuteThenTheParentsItEmptied) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_threshold = 15;
    file("2024-01-01/00/00/leg/media.qm", 10);
    file("2024-01-02/05/07/leg/media.qm", 10);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(20, 15), removed("2024-01-01/00/00"),
                                    removed("2024-01-01/00"), removed("2024-01-01"), used(10, 15),
                                    STOPPED));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2024-01-02/05/07/leg/media.qm"));
}

TEST_F(StorageManagerTest, MinutePolicyKeepsParentsThatStillHoldSomething) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_threshold = 15;
    file("2024-01-01/00/00/leg/media.qm", 10);
    file("2024-01-01/00/01/leg/media.qm", 10);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(20, 15), removed("2024-01-01/00/00"),
                                    used(10, 15), STOPPED));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2024-01-01/00/01/leg/media.qm"));
}

TEST_F(StorageManagerTest, HourPolicyRemovesOldestHoursUntilBelowTheThreshold) {
    settings.storage_cleanup_policy = cleanup_policy::HOUR;
    settings.storage_cleanup_threshold = 25;
    file("2024-01-01/00/00/a/media.qm", 10);
    file("2024-01-01/01/00/b/media.qm", 10);
    file("2024-01-02/00/00/c/media.qm", 10);
    file("2024-01-02/03/00/d/media.qm", 10);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(40, 25), removed("2024-01-01/00"), used(30, 25),
                                    removed("2024-01-01/01"), removed("2024-01-01"), used(20, 25),
                                    STOPPED));
}

// Only what was removed with its legs is told, not the parents it emptied, at the pass's time.
TEST_F(StorageManagerTest, RemovalsAreToldRelativeToTheStorageWithTheirTime) {
    settings.storage_cleanup_policy = cleanup_policy::HOUR;
    settings.storage_cleanup_threshold = 15;
    file("2024-01-01/00/00/a/media.qm", 10);
    file("2024-01-01/01/00/b/media.qm", 10);
    file("2024-01-02/00/00/c/media.qm", 10);
    now(std::chrono::hours(3));

    pass();
    const std::uint64_t at_us = 1704078000000000;
    EXPECT_THAT(reported,
                ElementsAre(std::pair<std::string, std::uint64_t>{"2024-01-01/00", at_us},
                            std::pair<std::string, std::uint64_t>{"2024-01-01/01", at_us}));
}

TEST_F(StorageManagerTest, DayPolicyRemovesTheOldestDayWhole) {
    settings.storage_cleanup_policy = cleanup_policy::DAY;
    settings.storage_cleanup_threshold = 25;
    file("2024-01-01/00/00/a/media.qm", 10);
    file("2024-01-01/07/30/b/media.qm", 10);
    file("2024-01-02/00/00/c/media.qm", 10);

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(30, 25), removed("2024-01-01"), used(10, 25), STOPPED));
}

// Only a day, an hour or a minute by its name is taken at its level, whatever sorts first.
TEST_F(StorageManagerTest, DayPolicyLeavesDirectoriesThatAreNoDay) {
    settings.storage_cleanup_policy = cleanup_policy::DAY;
    settings.storage_cleanup_threshold = 1;
    file("lost+found/x", 5);
    file("metrics/m", 5);
    file("10/00/00/a/media.qm", 5);
    file("2024-1-01/00/00/a/media.qm", 5);
    file("2024-01-01/00/00/a/media.qm", 10);

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(30, 1), removed("2024-01-01"), used(20, 1), STOPPED));
    for (const char* kept :
         {"lost+found/x", "metrics/m", "10/00/00/a/media.qm", "2024-1-01/00/00/a/media.qm"}) {
        EXPECT_TRUE(std::filesystem::exists(storage() / kept)) << kept;
    }
}

TEST_F(StorageManagerTest, MinutePolicyLeavesDirectoriesThatAreNoHourOrMinute) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_threshold = 1;
    file("lost+found/x", 5);
    file("0/00/00/a/media.qm", 5);
    file("2024-01-01/0/00/x", 5);
    file("2024-01-01/24/00/x", 5);
    file("2024-01-01/metrics/x", 5);
    file("2024-01-01/00/0/x", 5);
    file("2024-01-01/00/60/x", 5);
    file("2024-01-01/00/lost+found/x", 5);
    file("2024-01-01/00/59/a/media.qm", 10);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(50, 1), removed("2024-01-01/00/59"), used(40, 1),
                                    STOPPED));
}

TEST_F(StorageManagerTest, HourPolicyLeavesDirectoriesThatAreNoHour) {
    settings.storage_cleanup_policy = cleanup_policy::HOUR;
    settings.storage_cleanup_threshold = 1;
    file("2024-01-01/0/00/x", 5);
    file("2024-01-01/lost+found/x", 5);
    file("2024-01-01/23/00/a/media.qm", 10);

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(20, 1), removed("2024-01-01/23"), used(10, 1), STOPPED));
}

// An oldest day without hours stops every pass before it removes anything: the disk fills.
TEST_F(StorageManagerTest, HourPolicyStallsForGoodOnAnEmptyOldestDay) {
    settings.storage_cleanup_policy = cleanup_policy::HOUR;
    settings.storage_cleanup_threshold = 1;
    std::filesystem::create_directories(storage() / "2024-01-01");
    file("2024-01-02/05/00/a/media.qm", 10);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(10, 1), STOPPED));
    EXPECT_THAT(pass(), ElementsAre(STARTED, used(10, 1), STOPPED));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2024-01-02/05/00/a/media.qm"));
}

TEST_F(StorageManagerTest, HourPolicyRemovesAnEmptyOldestDayAndGoesOnWhenAsked) {
    settings.storage_cleanup_policy = cleanup_policy::HOUR;
    settings.storage_cleanup_remove_empty = true;
    settings.storage_cleanup_threshold = 1;
    std::filesystem::create_directories(storage() / "2024-01-01");
    file("2024-01-02/05/00/a/media.qm", 10);

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(10, 1), removed_empty("2024-01-01"),
                            removed("2024-01-02/05"), removed("2024-01-02"), used(0, 1), STOPPED));
}

TEST_F(StorageManagerTest, MinutePolicyStallsForGoodOnAnEmptyOldestHour) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_threshold = 1;
    std::filesystem::create_directories(storage() / "2024-01-01/00");
    file("2024-01-01/01/00/a/media.qm", 10);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(10, 1), STOPPED));
    EXPECT_THAT(pass(), ElementsAre(STARTED, used(10, 1), STOPPED));
}

// The empty hour goes, then the day it emptied, and the next day's minute.
TEST_F(StorageManagerTest, MinutePolicyRemovesEmptyHoursAndDaysAndGoesOnWhenAsked) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_remove_empty = true;
    settings.storage_cleanup_threshold = 1;
    std::filesystem::create_directories(storage() / "2024-01-01/00");
    file("2024-01-02/03/04/a/media.qm", 10);

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(10, 1), removed_empty("2024-01-01/00"),
                            removed_empty("2024-01-01"), removed("2024-01-02/03/04"),
                            removed("2024-01-02/03"), removed("2024-01-02"), used(0, 1), STOPPED));
}

// A day that holds something other than hours is not empty: it stays, and the pass ends.
TEST_F(StorageManagerTest, RemovingEmptyDirectoriesLeavesADayWithOtherContent) {
    settings.storage_cleanup_policy = cleanup_policy::HOUR;
    settings.storage_cleanup_remove_empty = true;
    settings.storage_cleanup_threshold = 1;
    file("2024-01-01/lost+found/x", 5);
    file("2024-01-02/05/00/a/media.qm", 10);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(15, 1), STOPPED));
}

std::string spared(const std::string& path, std::size_t legs) {
    return "STORAGE_MANAGER: spared " + path + ": it holds " + std::to_string(legs) +
           " legs still being recorded";
}

// Older minutes go; the one the legs still write into stays, and so does everything newer.
TEST_F(StorageManagerTest, MinutePolicySparesTheMinuteOfOpenLegsAndEndsThePass) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_threshold = 1;
    file("2024-01-01/00/00/a/media.qm", 10);
    file("2024-01-01/00/01/b/media.qm", 10);
    file("2024-01-01/00/01/c/media.qm", 10);
    file("2024-01-01/00/02/d/media.qm", 10);
    open_legs = &legs;
    const writer::OpenLegs::Registration b = legs.open("2024-01-01/00/01");
    const writer::OpenLegs::Registration c = legs.open("2024-01-01/00/01");

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(40, 1), removed("2024-01-01/00/00"), used(30, 1),
                                    spared(path("2024-01-01/00/01"), 2), STOPPED));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2024-01-01/00/01/b/media.qm"));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2024-01-01/00/02/d/media.qm"));
}

TEST_F(StorageManagerTest, HourAndDayPoliciesSpareTheHourAndDayOfAnOpenLeg) {
    settings.storage_cleanup_threshold = 1;
    file("2024-01-01/00/05/a/media.qm", 10);
    open_legs = &legs;
    const writer::OpenLegs::Registration leg = legs.open("2024-01-01/00/05");

    settings.storage_cleanup_policy = cleanup_policy::HOUR;
    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(10, 1), spared(path("2024-01-01/00"), 1), STOPPED));
    settings.storage_cleanup_policy = cleanup_policy::DAY;
    EXPECT_THAT(pass(), ElementsAre(STARTED, used(10, 1), spared(path("2024-01-01"), 1), STOPPED));
}

// A closed leg spares nothing, and without the registry an open one spares nothing either.
TEST_F(StorageManagerTest, AMinuteIsRemovedOnceItsLegsClosedOrWhenLegsAreNotSpared) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_threshold = 1;
    file("2024-01-01/00/00/a/media.qm", 10);
    file("2024-01-02/00/00/b/media.qm", 10);
    writer::OpenLegs::Registration a = legs.open("2024-01-01/00/00");
    const writer::OpenLegs::Registration b = legs.open("2024-01-02/00/00");

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(20, 1), removed("2024-01-01/00/00"),
                                    removed("2024-01-01/00"), removed("2024-01-01"), used(10, 1),
                                    removed("2024-01-02/00/00"), removed("2024-01-02/00"),
                                    removed("2024-01-02"), used(0, 1), STOPPED));
    file("2024-01-01/00/00/a/media.qm", 10);
    open_legs = &legs;
    a.reset();
    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(10, 1), removed("2024-01-01/00/00"),
                            removed("2024-01-01/00"), removed("2024-01-01"), used(0, 1), STOPPED));
}

// The writer has yet to make the directories of a leg that has written nothing: its empty hour
// stays.
TEST_F(StorageManagerTest, AnEmptyHourThatAnOpenLegWillWriteIntoIsSpared) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_remove_empty = true;
    settings.storage_cleanup_threshold = 1;
    std::filesystem::create_directories(storage() / "2024-01-01/00");
    file("2024-01-01/01/00/a/media.qm", 10);
    open_legs = &legs;
    const writer::OpenLegs::Registration leg = legs.open("2024-01-01/00/30");

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(10, 1), spared(path("2024-01-01/00"), 1), STOPPED));
    EXPECT_TRUE(std::filesystem::is_directory(storage() / "2024-01-01/00"));
}

TEST_F(StorageManagerTest, HourPolicyWhenTheOldestDayHoldsAPlainFileOnlyRemovesNothing) {
    settings.storage_cleanup_policy = cleanup_policy::HOUR;
    settings.storage_cleanup_threshold = 1;
    file("2024-01-01/notes.txt", 10);

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(10, 1), STOPPED));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2024-01-01/notes.txt"));
}

// The failed removal changes nothing, the same day comes up again and the loop guard ends the pass.
TEST_F(StorageManagerTest, DirectoryThatCannotBeRemovedEndsThePassAtTheLoopGuard) {
    settings.storage_cleanup_policy = cleanup_policy::DAY;
    settings.storage_cleanup_threshold = 1;
    file("2024-01-01/00/00/a/media.qm", 10);
    files.unremovable.insert(path("2024-01-01"));

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(10, 1),
                            "STORAGE_MANAGER: failed to remove, error: " +
                                std::make_error_code(std::errc::permission_denied).message(),
                            used(10, 1),
                            "STORAGE_MANAGER: infinite removing loop detected for path: " +
                                path("2024-01-01"),
                            STOPPED));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2024-01-01/00/00/a/media.qm"));
}

TEST_F(StorageManagerTest, DisabledPolicyThatFindsTheStorageFullSaysSo) {
    settings.storage_cleanup_policy = cleanup_policy::DISABLED;
    settings.storage_cleanup_threshold = 1;
    file("2024-01-01/00/00/a/media.qm", 10);

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, used(10, 1), "STORAGE_MANAGER: cleanup is disabled", STOPPED));
}

TEST_F(StorageManagerTest, MissingStorageCannotBeMeasured) {
    std::filesystem::remove(storage());
    settings.storage_cleanup_threshold = 1;

    const std::vector<std::string> by_files = pass();
    ASSERT_EQ(by_files.size(), 4u);
    EXPECT_EQ(by_files[1].rfind("PATH_SPACE_CALCULATOR: failed to get space for \"" +
                                    storage().string() + "\", error: ",
                                0),
              0u)
        << by_files[1];
    EXPECT_EQ(by_files[2], "STORAGE_MANAGER: space check status [unknown]: 2");

    settings.storage_cleanup_algo = cleanup_algo::DF;
    const std::vector<std::string> by_volume = pass();
    ASSERT_EQ(by_volume.size(), 4u);
    EXPECT_EQ(by_volume[1].rfind("DISK_SPACE_CALCULATOR: failed to get space for \"" +
                                     storage().string() + "\", error: ",
                                 0),
              0u)
        << by_volume[1];
    EXPECT_EQ(by_volume[2], "STORAGE_MANAGER: space check status [unknown]: 2");
}

const std::string ABOVE_100 =
    "PERCENT_SPACE_CHECKER: a value (150) must not exceed 100%, setting the one to 100%";
const std::string AT_100 =
    "PERCENT_SPACE_CHECKER: a value of 100% may lead to data loss, highly recommended to reduce "
    "the value";

TEST_F(StorageManagerTest, ThresholdAbove100PercentIsTakenAs100WithTwoWarnings) {
    settings.storage_cleanup_threshold = -150;
    volume(1000, 500, 400);

    EXPECT_THAT(pass(), ElementsAre(STARTED, ABOVE_100, AT_100, percent("55.56", "100.00", false),
                                    STOPPED));
}

TEST_F(StorageManagerTest, ThresholdOf100PercentWarnsOnce) {
    settings.storage_cleanup_threshold = -100;
    volume(1000, 500, 400);

    EXPECT_THAT(pass(), ElementsAre(STARTED, AT_100, percent("55.56", "100.00", false), STOPPED));
}

// The threshold is read once per pass: its warnings come once, not before every measure.
TEST_F(StorageManagerTest, PercentWarningsComeOncePerPassThatRemovesThreeMinutes) {
    settings.storage_cleanup_policy = cleanup_policy::MINUTE;
    settings.storage_cleanup_threshold = -150;
    volume(1000, 0, 0);
    file("2024-01-01/00/00/a/media.qm", 10);
    file("2024-01-01/00/01/b/media.qm", 10);
    file("2024-01-01/00/02/c/media.qm", 10);
    const std::string full = percent("100.00", "100.00", true);

    EXPECT_THAT(pass(),
                ElementsAre(STARTED, ABOVE_100, AT_100, full, removed("2024-01-01/00/00"), full,
                            removed("2024-01-01/00/01"), full, removed("2024-01-01/00/02"),
                            removed("2024-01-01/00"), removed("2024-01-01"), full, STOPPED));
}

// 0% is reached by every measure; with nothing to remove the pass ends.
TEST_F(StorageManagerTest, ThresholdZeroIsZeroPercentWhichIsAlwaysExceeded) {
    settings.storage_cleanup_threshold = 0;
    volume(1000, 1000, 1000);

    EXPECT_THAT(pass(), ElementsAre(STARTED, percent("0.00", "0.00", true), STOPPED));
}

// Used is capacity minus free; the base is used plus available.
TEST_F(StorageManagerTest, DfBelowThePercentThresholdIsGood) {
    volume(1000, 300, 250);
    EXPECT_THAT(pass(), ElementsAre(STARTED, percent("73.68", "90.00", false), STOPPED));
}

TEST_F(StorageManagerTest, DfAtOrAboveThePercentThresholdIsExceeded) {
    volume(1000, 50, 50);
    EXPECT_THAT(pass(), ElementsAre(STARTED, percent("95.00", "90.00", true), STOPPED));
    volume(1000, 100, 100);
    EXPECT_THAT(pass(), ElementsAre(STARTED, percent("90.00", "90.00", true), STOPPED));
}

TEST_F(StorageManagerTest, DfFullDiskIsAHundredPercent) {
    volume(1000, 0, 0);
    EXPECT_THAT(pass(), ElementsAre(STARTED, percent("100.00", "90.00", true), STOPPED));
    settings.storage_cleanup_threshold = -100;
    EXPECT_THAT(pass(), ElementsAre(STARTED, AT_100, percent("100.00", "100.00", true), STOPPED));
}

// Blocks reserved for root are neither used nor available: what is left is root's alone.
TEST_F(StorageManagerTest, DfWithOnlyReservedBlocksLeftIsAHundredPercent) {
    volume(1000, 100, 0);
    EXPECT_THAT(pass(), ElementsAre(STARTED, percent("100.00", "90.00", true), STOPPED));
}

TEST_F(StorageManagerTest, DfWithNothingUsedNorAvailableIsAHundredPercent) {
    volume(1000, 1000, 0);
    EXPECT_THAT(pass(), ElementsAre(STARTED, percent("100.00", "90.00", true), STOPPED));
}

TEST_F(StorageManagerTest, DfAgainstABytesThresholdComparesCapacityMinusFree) {
    settings.storage_cleanup_threshold = 700;
    volume(1000, 300, 0);
    EXPECT_THAT(pass(), ElementsAre(STARTED, used(700, 700), STOPPED));
    volume(1000, 301, 0);
    EXPECT_THAT(pass(), ElementsAre(STARTED, used(699, 700), STOPPED));
}

// A volume of no capacity is no measure: the checker says unknown without an error of its own.
TEST_F(StorageManagerTest, DfOfNoCapacityIsUnknown) {
    volume(0, 0, 0);
    EXPECT_THAT(pass(), ElementsAre(STARTED, UNKNOWN, STOPPED));
}

TEST_F(StorageManagerTest, DfThatFailsIsLoggedAndUnknown) {
    volume(1000, 0, 0);
    files.space_failure = FakeFileSystem::Failure::standard;
    EXPECT_THAT(pass(), ElementsAre(STARTED,
                                    "DISK_SPACE_CALCULATOR: failed to get space for \"" +
                                        storage().string() + "\", error: injected failure",
                                    UNKNOWN, STOPPED));
    files.space_failure = FakeFileSystem::Failure::other;
    EXPECT_THAT(pass(), ElementsAre(STARTED,
                                    "DISK_SPACE_CALCULATOR: failed to get space for \"" +
                                        storage().string() + "\", error: unknown",
                                    UNKNOWN, STOPPED));
}

// "du" with a percentage: the files' bytes against the volume's used plus available.
TEST_F(StorageManagerTest, DuAgainstAPercentThresholdTakesTheVolumeAsBase) {
    file("2024-01-01/00/00/leg/media.qm", 100);
    files.volume = FileSystem::Space{1000, 600, 600};
    settings.storage_cleanup_threshold = -10;
    EXPECT_THAT(pass(),
                ElementsAre(STARTED, percent("10.00", "10.00", true), removed("2024-01-01/00"),
                            removed("2024-01-01"), percent("0.00", "10.00", false), STOPPED));
}

TEST_F(StorageManagerTest, DuAgainstAPercentThresholdIsUnknownWhenTheVolumeFails) {
    files.space_failure = FakeFileSystem::Failure::standard;
    settings.storage_cleanup_threshold = -10;
    EXPECT_THAT(pass(), ElementsAre(STARTED,
                                    "DISK_SPACE_CALCULATOR: failed to get space for \"" +
                                        storage().string() + "\", error: injected failure",
                                    UNKNOWN, STOPPED));
}

TEST_F(StorageManagerTest, ThresholdOfTenGigabytesIsABytesThreshold) {
    settings.storage_cleanup_threshold = 10.0L * 1024 * 1024 * 1024;
    file("a/b", 7);
    EXPECT_THAT(pass(), ElementsAre(STARTED, used(7, 10737418240ULL), STOPPED));
}

TEST(SpaceComparisonTest, PercentagesShowTwoDecimals) {
    test::LogCapture capture;

    EXPECT_EQ(compare_percent(95, 90), SpaceStatus::exceeded);
    EXPECT_EQ(compare_percent(89.994, 90), SpaceStatus::good);

    EXPECT_THAT(capture.texts(),
                ElementsAre("STORAGE_MANAGER: space: used (95.00%) >= threshold (90.00%): exceeded",
                            "STORAGE_MANAGER: space: used (89.99%) < threshold (90.00%): good"));
}

TEST(SpaceComparisonTest, BytesAtTheThresholdAreExceeded) {
    test::LogCapture capture;
    EXPECT_EQ(compare_bytes(100, 100), SpaceStatus::exceeded);
    EXPECT_EQ(compare_bytes(99, 100), SpaceStatus::good);
}

TEST(SpaceComparisonTest, NothingUsableIsAHundredPercent) {
    EXPECT_EQ(used_percent(0, 0), 100.0);
    EXPECT_EQ(used_percent(50, 200), 25.0);
    EXPECT_EQ(used_percent(95, 100), 95.0);
}

// The minutes the tests age below: 00:06 ends at 00:07:00, 00:07 at 00:08:00 and so on.
constexpr std::uint64_t TWO_MINUTES_US = 120'000'000;
using std::chrono::microseconds;
using std::chrono::minutes;

class StorageMaxAgeTest : public StorageManagerTest {
protected:
    StorageMaxAgeTest() {
        settings.storage_max_age = TWO_MINUTES_US;
        settings.storage_cleanup_policy = cleanup_policy::MINUTE;
        settings.storage_cleanup_threshold = 1000;
        for (const char* minute : {"06", "07", "08", "09"}) {
            file("2024-01-01/00/" + std::string(minute) + "/leg/media.qm", 10);
        }
    }

    bool minute_exists(const std::string& minute) const {
        return std::filesystem::exists(storage() / ("2024-01-01/00/" + minute + "/leg/media.qm"));
    }
};

// At 00:10:00, 00:07 ended exactly two minutes ago: it goes with the older 00:06. 00:08 ended one
// minute ago and stays, and the walk ends there.
TEST_F(StorageMaxAgeTest, MinuteWhoseEndIsTheMaxAgeAgoGoesAndYoungerOnesStay) {
    now(minutes(10));

    EXPECT_THAT(pass(), ElementsAre(STARTED, removed_by_age("2024-01-01/00/06", "3m", "2m"),
                                    removed_by_age("2024-01-01/00/07", "2m", "2m"), used(20, 1000),
                                    STOPPED));
    EXPECT_TRUE(minute_exists("08"));
    EXPECT_TRUE(minute_exists("09"));
}

TEST_F(StorageMaxAgeTest, MinutesRemovedByAgeAreTold) {
    now(minutes(10));

    pass();
    const std::uint64_t at_us = 1704067800000000;
    EXPECT_THAT(reported,
                ElementsAre(std::pair<std::string, std::uint64_t>{"2024-01-01/00/06", at_us},
                            std::pair<std::string, std::uint64_t>{"2024-01-01/00/07", at_us}));
}

TEST_F(StorageMaxAgeTest, MinuteOneMicrosecondShortOfTheMaxAgeStays) {
    now(minutes(10) - microseconds(1));

    EXPECT_THAT(pass(), ElementsAre(STARTED, removed_by_age("2024-01-01/00/06", "2m59s", "2m"),
                                    used(30, 1000), STOPPED));
    EXPECT_TRUE(minute_exists("07"));
}

TEST_F(StorageMaxAgeTest, ZeroMaxAgeRemovesNothingByAge) {
    settings.storage_max_age = 0;
    now(minutes(600));

    EXPECT_THAT(pass(), ElementsAre(STARTED, used(40, 1000), STOPPED));
}

// Yesterday's last hour and the day go once their minutes went; today's hour still holds younger
// minutes and stays.
TEST_F(StorageMaxAgeTest, HoursAndDaysTheAgeEmptiedGoToo) {
    file("2023-12-31/22/10/leg/media.qm", 10);
    file("2023-12-31/23/59/leg/media.qm", 10);
    now(minutes(10));

    EXPECT_THAT(
        pass(),
        ElementsAre(STARTED, removed_by_age("2023-12-31/22/10", "1h59m", "2m"),
                    removed("2023-12-31/22"), removed_by_age("2023-12-31/23/59", "10m", "2m"),
                    removed("2023-12-31/23"), removed("2023-12-31"),
                    removed_by_age("2024-01-01/00/06", "3m", "2m"),
                    removed_by_age("2024-01-01/00/07", "2m", "2m"), used(20, 1000), STOPPED));
    EXPECT_FALSE(std::filesystem::exists(storage() / "2023-12-31"));
    EXPECT_TRUE(minute_exists("08"));
}

// Whole days, hours, minutes and seconds, the zero ones left out. 2024 is a leap year: 2024-04-01
// is 91 days after 2024-01-01.
TEST_F(StorageMaxAgeTest, AgesOfDaysAreWrittenInDaysHoursMinutesAndSeconds) {
    settings.storage_max_age = 90ULL * 86'400'000'000ULL;
    now(std::chrono::days(91) + std::chrono::hours(2) + minutes(10) + std::chrono::seconds(4));

    EXPECT_THAT(pass(), ElementsAre(STARTED, removed_by_age("2024-01-01/00/06", "91d2h3m4s", "90d"),
                                    removed_by_age("2024-01-01/00/07", "91d2h2m4s", "90d"),
                                    removed_by_age("2024-01-01/00/08", "91d2h1m4s", "90d"),
                                    removed_by_age("2024-01-01/00/09", "91d2h4s", "90d"),
                                    removed("2024-01-01/00"), removed("2024-01-01"), used(0, 1000),
                                    STOPPED));
}

// Only days that are dates, and hours and minutes by their names, have an age; the rest stays,
// and so does a day that still holds something else.
TEST_F(StorageMaxAgeTest, WhatHasNoAgeStays) {
    file("0000-00-00/00/00/leg/media.qm", 10);
    file("2024-01-01/00/60/leg/media.qm", 10);
    file("2023-12-31/notes.txt", 10);
    file("2023-12-31/23/59/leg/media.qm", 10);
    file("lost+found/x", 10);
    now(minutes(10));

    EXPECT_THAT(
        pass(),
        ElementsAre(STARTED, removed_by_age("2023-12-31/23/59", "10m", "2m"),
                    removed("2023-12-31/23"), removed_by_age("2024-01-01/00/06", "3m", "2m"),
                    removed_by_age("2024-01-01/00/07", "2m", "2m"), used(60, 1000), STOPPED));
    EXPECT_TRUE(std::filesystem::exists(storage() / "0000-00-00/00/00/leg/media.qm"));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2024-01-01/00/60/leg/media.qm"));
    EXPECT_TRUE(std::filesystem::exists(storage() / "2023-12-31/notes.txt"));
}

// Age first, then size: the size rule takes the oldest minute the age left.
TEST_F(StorageMaxAgeTest, SizeRuleStillRemovesAfterTheAge) {
    settings.storage_cleanup_threshold = 15;
    now(minutes(9));

    EXPECT_THAT(pass(), ElementsAre(STARTED, removed_by_age("2024-01-01/00/06", "2m", "2m"),
                                    used(30, 15), removed("2024-01-01/00/07"), used(20, 15),
                                    removed("2024-01-01/00/08"), used(10, 15), STOPPED));
    EXPECT_TRUE(minute_exists("09"));
}

// A leg still recorded in an old minute (its sender's clock is behind) keeps the minute; the
// walk goes on past it, and the minute goes in the first pass after the leg closed.
TEST_F(StorageMaxAgeTest, MinuteOfAnOpenLegIsSparedAndTheWalkGoesOn) {
    now(minutes(10));
    open_legs = &legs;
    writer::OpenLegs::Registration leg = legs.open("2024-01-01/00/06");

    EXPECT_THAT(pass(), ElementsAre(STARTED, spared(path("2024-01-01/00/06"), 1),
                                    removed_by_age("2024-01-01/00/07", "2m", "2m"), used(30, 1000),
                                    STOPPED));
    EXPECT_TRUE(minute_exists("06"));
    leg.reset();
    EXPECT_THAT(pass(), ElementsAre(STARTED, removed_by_age("2024-01-01/00/06", "3m", "2m"),
                                    used(20, 1000), STOPPED));
}

// The failed minute stays and the walk goes on; the size rule, coming to the same minute, stops
// at the loop guard.
TEST_F(StorageMaxAgeTest, MinuteThatCannotBeRemovedStaysAndTheSizeRuleStopsAtTheLoopGuard) {
    settings.storage_cleanup_threshold = 1;
    files.unremovable.insert(path("2024-01-01/00/06"));
    now(minutes(10));

    EXPECT_THAT(pass(),
                ElementsAre(STARTED,
                            "STORAGE_MANAGER: failed to remove, error: " +
                                std::make_error_code(std::errc::permission_denied).message(),
                            removed_by_age("2024-01-01/00/07", "2m", "2m"), used(30, 1),
                            "STORAGE_MANAGER: infinite removing loop detected for path: " +
                                path("2024-01-01/00/06"),
                            STOPPED));
    EXPECT_TRUE(minute_exists("06"));
}

TEST_F(StorageMaxAgeTest, DisabledSizePolicyStillStartsTheThreadForTheAge) {
    settings.storage_cleanup_policy = cleanup_policy::DISABLED;
    settings.storage_cleanup_timer = 1000;  // 1 ms
    now(minutes(10));
    StorageManager manager(storage().string(), settings, nullptr, files);

    ASSERT_EQ(manager.start(), 0);
    ASSERT_TRUE(capture.wait_for(removed_by_age("2024-01-01/00/07", "2m", "2m")));
    ASSERT_EQ(manager.stop(), 0);

    EXPECT_EQ(capture.count(removed_by_age("2024-01-01/00/06", "3m", "2m")), 1u);
    EXPECT_FALSE(minute_exists("07"));
    EXPECT_TRUE(minute_exists("08"));
}

TEST_F(StorageManagerTest, StopWakesTheThreadAtOnceBetweenPasses) {
    settings.storage_cleanup_timer = 3'600'000'000ULL;  // an hour
    StorageManager manager(storage().string(), settings);

    ASSERT_EQ(manager.start(), 0);
    ASSERT_TRUE(capture.wait_for("STORAGE_MANAGER: thread ["));
    ASSERT_EQ(manager.stop(), 0);

    const std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_THAT(texts[0], ::testing::MatchesRegex(R"(STORAGE_MANAGER: thread \[[0-9]+\] started)"));
    EXPECT_EQ(texts[1], "STORAGE_MANAGER: received stop indication, running: false");
    EXPECT_THAT(texts[2], ::testing::MatchesRegex(R"(STORAGE_MANAGER: thread \[[0-9]+\] stopped)"));
    EXPECT_EQ(manager.stop(), 0);
}

TEST_F(StorageManagerTest, ThreadRunsAPassEveryPeriod) {
    settings.storage_cleanup_timer = 1000;  // 1 ms
    settings.storage_cleanup_threshold = 1;
    StorageManager manager(storage().string(), settings);

    ASSERT_EQ(manager.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return capture.count(STOPPED) >= 3; },
                                 std::chrono::milliseconds(5000)));
    ASSERT_EQ(manager.stop(), 0);

    EXPECT_EQ(capture.count(STARTED), capture.count(STOPPED));
}

}  // namespace
}  // namespace qm::storage
