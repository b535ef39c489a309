#include "storage/storage_manager.hpp"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "log/logger.hpp"
#include "utils/str.hpp"

namespace qm::storage {
namespace {

namespace fs = boost::filesystem;

constexpr std::uint64_t NOT_MEASURED = std::numeric_limits<std::uint64_t>::max();
constexpr std::int64_t US_PER_SECOND = 1'000'000;
constexpr std::int64_t US_PER_MINUTE = 60 * US_PER_SECOND;
constexpr std::int64_t US_PER_HOUR = 60 * US_PER_MINUTE;
constexpr std::int64_t US_PER_DAY = 24 * US_PER_HOUR;

class SpaceCalculator {
public:
    explicit SpaceCalculator(const std::string& path) : m_path(path) {}
    virtual ~SpaceCalculator() = default;
    virtual std::uint64_t used() const = 0;
    virtual explicit operator bool() const = 0;

protected:
    const std::string& m_path;
};

// The volume that holds the path, as the file system reports it.
class DiskSpaceCalculator : public SpaceCalculator {
public:
    using SpaceCalculator::SpaceCalculator;

    static DiskSpaceCalculator calc(FileSystem& files, const std::string& path) {
        DiskSpaceCalculator calculator(path);
        try {
            const FileSystem::Space space = files.space(path);
            calculator.capacity = space.capacity;
            calculator.free = space.free;
            calculator.available = space.available;
        } catch (const std::exception& error) {
            QM_LOG_ERROR("DISK_SPACE_CALCULATOR: failed to get space for \""
                         << path << "\", error: " << error.what());
        } catch (...) {
            QM_LOG_ERROR("DISK_SPACE_CALCULATOR: failed to get space for \""
                         << path << "\", error: unknown");
        }
        return calculator;
    }

    std::uint64_t used() const override { return capacity - free; }
    explicit operator bool() const override { return capacity != 0; }

    std::uint64_t capacity = 0;
    std::uint64_t free = 0;
    std::uint64_t available = 0;
};

// The regular files under the path, added up.
class PathSpaceCalculator : public SpaceCalculator {
public:
    PathSpaceCalculator(FileSystem& files, const std::string& path) : SpaceCalculator(path) {
        try {
            m_used = files.used_bytes(path);
        } catch (const std::exception& error) {
            QM_LOG_ERROR("PATH_SPACE_CALCULATOR: failed to get space for \""
                         << path << "\", error: " << error.what());
        } catch (...) {
            QM_LOG_ERROR("PATH_SPACE_CALCULATOR: failed to get space for \""
                         << path << "\", error: unknown");
        }
    }

    std::uint64_t used() const override { return m_used; }
    explicit operator bool() const override { return m_used != NOT_MEASURED; }

private:
    std::uint64_t m_used = NOT_MEASURED;
};

class SpaceChecker {
public:
    virtual SpaceStatus check(const DiskSpaceCalculator& disk) const = 0;
    virtual SpaceStatus check(const PathSpaceCalculator& path) const = 0;
    virtual ~SpaceChecker() = default;
};

class ByteSpaceChecker : public SpaceChecker {
public:
    explicit ByteSpaceChecker(std::uint64_t threshold) : m_threshold(threshold) {}

    SpaceStatus check(const DiskSpaceCalculator& disk) const override {
        return disk ? compare_bytes(disk.used(), m_threshold) : SpaceStatus::unknown;
    }
    SpaceStatus check(const PathSpaceCalculator& path) const override {
        return path ? compare_bytes(path.used(), m_threshold) : SpaceStatus::unknown;
    }

private:
    std::uint64_t m_threshold;
};

class PercentSpaceChecker : public SpaceChecker {
public:
    PercentSpaceChecker(double threshold, const std::string& storage, FileSystem& files)
        : m_threshold(threshold), m_storage(storage), m_files(files) {}

    SpaceStatus check(const DiskSpaceCalculator& disk) const override {
        if (!disk) {
            return SpaceStatus::unknown;
        }
        return compare_percent(used_percent(disk.used(), disk.used() + disk.available),
                               m_threshold);
    }
    // The files' bytes against what the volume holds for the recorder, as for "df".
    SpaceStatus check(const PathSpaceCalculator& path) const override {
        if (!path) {
            return SpaceStatus::unknown;
        }
        const DiskSpaceCalculator disk = DiskSpaceCalculator::calc(m_files, m_storage);
        if (!disk) {
            return SpaceStatus::unknown;
        }
        return compare_percent(used_percent(path.used(), disk.used() + disk.available),
                               m_threshold);
    }

private:
    double m_threshold;
    const std::string& m_storage;
    FileSystem& m_files;
};

// Positive thresholds are bytes, the others percentages stored negated.
std::unique_ptr<SpaceChecker> make_checker(long double threshold, const std::string& storage,
                                           FileSystem& files) {
    if (threshold > 0) {
        // Beyond 2^64 - 1 bytes nothing is ever exceeded; the conversion must not overflow.
        const long double limit = static_cast<long double>(NOT_MEASURED);
        return std::make_unique<ByteSpaceChecker>(
            threshold >= limit ? NOT_MEASURED : static_cast<std::uint64_t>(threshold));
    }
    double percent = static_cast<double>(std::fabs(threshold));
    if (percent > 100) {
        QM_LOG_WARNING("PERCENT_SPACE_CHECKER: a value (" << percent
                                                          << ") must not exceed 100%, setting "
                                                             "the one to 100%");
        percent = 100;
    }
    if (percent == 100) {
        QM_LOG_WARNING(
            "PERCENT_SPACE_CHECKER: a value of 100% may lead to data loss, highly recommended to "
            "reduce the value");
    }
    return std::make_unique<PercentSpaceChecker>(percent, storage, files);
}

// Appends the full path of every entry of the directory `path`, one level, unsorted.
void get_path_content(FileSystem& files, const std::string& path, std::vector<std::string>& list) {
    switch (files.kind(path)) {
        case FileSystem::Kind::missing:
            QM_LOG_ERROR("STORAGE_MANAGER: path does not exist: " << path);
            return;
        case FileSystem::Kind::other:
            QM_LOG_ERROR("STORAGE_MANAGER: path is not a directory: " << path);
            return;
        case FileSystem::Kind::directory:
            files.list(path, list);
            return;
    }
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Two digits from "00" to the largest value given.
bool is_two_digits_up_to(const std::string& name, int largest) {
    return name.size() == 2 && is_digit(name[0]) && is_digit(name[1]) &&
           (name[0] - '0') * 10 + (name[1] - '0') <= largest;
}

// "YYYY-MM-DD" by its shape only: the writer's fallback day for a time it cannot render,
// "0000-00-00", is a day as well.
bool is_day(const std::string& name) {
    static constexpr std::string_view SHAPE = "0000-00-00";
    if (name.size() != SHAPE.size()) {
        return false;
    }
    for (std::size_t i = 0; i < SHAPE.size(); ++i) {
        if (SHAPE[i] == '-' ? name[i] != '-' : !is_digit(name[i])) {
            return false;
        }
    }
    return true;
}

bool is_hour(const std::string& name) {
    return is_two_digits_up_to(name, 23);
}

bool is_minute(const std::string& name) {
    return is_two_digits_up_to(name, 59);
}

// The levels of the tree below the storage root, the room a listing of the level reserves, and
// the time one step of the level's number spans (a day's name is a date instead).
struct Level {
    std::size_t expected;
    bool (*is_level)(const std::string&);
    std::int64_t step_us;
};
constexpr Level LEVELS[] = {
    {16, is_day, 0}, {24, is_hour, US_PER_HOUR}, {60, is_minute, US_PER_MINUTE}};
constexpr std::size_t DAY_DEPTH = 1;
constexpr std::size_t HOUR_DEPTH = 2;
constexpr std::size_t MINUTE_DEPTH = 3;

// Every entry of the directory `path` by name: the tree's levels in time order.
std::vector<std::string> sorted_content(FileSystem& files, const std::string& path,
                                        std::size_t expected) {
    std::vector<std::string> list;
    list.reserve(expected);
    get_path_content(files, path, list);
    std::sort(list.begin(), list.end());
    return list;
}

// Anything else in the tree (plain files, a volume's lost+found, an operator's own directories) is
// never taken for a day, an hour or a minute.
bool is_level_directory(FileSystem& files, const std::string& entry, const Level& level) {
    return level.is_level(fs::path(entry).filename().string()) &&
           files.kind(entry) == FileSystem::Kind::directory;
}

// The first directory of `path` by name whose name is one of the level's: the oldest, since the
// tree's names sort in time order.
std::string get_path_content_top(FileSystem& files, const std::string& path, const Level& level) {
    const std::vector<std::string> list = sorted_content(files, path, level.expected);
    const auto oldest = std::find_if(list.begin(), list.end(), [&](const std::string& entry) {
        return is_level_directory(files, entry, level);
    });
    return oldest == list.end() ? std::string() : *oldest;
}

int number_at(const std::string& name, std::size_t at, std::size_t digits) {
    int number = 0;
    for (std::size_t i = at; i < at + digits; ++i) {
        number = number * 10 + (name[i] - '0');
    }
    return number;
}

// The start, in microseconds since the epoch, of the day, hour or minute `name` at `level`, whose
// parent starts at `parent_us`. Nothing for a day that is no calendar date, such as the writer's
// fallback "0000-00-00": no age can be told for it.
std::optional<std::int64_t> start_of(const std::string& name, const Level& level,
                                     std::int64_t parent_us) {
    if (level.step_us != 0) {
        return parent_us + number_at(name, 0, 2) * level.step_us;
    }
    const std::chrono::year_month_day date{
        std::chrono::year(number_at(name, 0, 4)),
        std::chrono::month(static_cast<unsigned>(number_at(name, 5, 2))),
        std::chrono::day(static_cast<unsigned>(number_at(name, 8, 2)))};
    if (!date.ok()) {
        return std::nullopt;
    }
    return std::chrono::sys_days(date).time_since_epoch().count() * US_PER_DAY;
}

// Whole days, hours, minutes and seconds, the zero ones left out ("2m30s", "90d"); "0s" for less
// than a second.
std::string describe_duration(std::int64_t us) {
    static constexpr std::pair<std::int64_t, char> UNITS[] = {
        {US_PER_DAY, 'd'}, {US_PER_HOUR, 'h'}, {US_PER_MINUTE, 'm'}, {US_PER_SECOND, 's'}};
    std::string text;
    for (const auto& [unit_us, suffix] : UNITS) {
        if (us >= unit_us) {
            text += std::to_string(us / unit_us) + suffix;
            us %= unit_us;
        }
    }
    return text.empty() ? "0s" : text;
}

// Removes one file or one empty directory; a directory that still holds something stays, without
// a word.
bool remove_path(FileSystem& files, const std::string& path) {
    const std::error_code error = files.remove(path);
    if (!error) {
        return true;
    }
    if (error.value() != ENOTEMPTY && error.value() != ENOENT) {
        QM_LOG_ERROR("STORAGE_MANAGER: failed to remove, error: " << error.message());
    }
    return false;
}

// Measures the storage as `algo` says and checks the measure.
SpaceStatus check_space(FileSystem& files, const std::string& storage, cleanup_algo algo,
                        const SpaceChecker& checker) {
    switch (algo) {
        case cleanup_algo::DF:
            return checker.check(DiskSpaceCalculator::calc(files, storage));
        case cleanup_algo::DU:
            return checker.check(PathSpaceCalculator(files, storage));
    }
    QM_LOG_ERROR("STORAGE_MANAGER: unknown cleanup algo (" << static_cast<int>(algo) << ")");
    return SpaceStatus::unknown;
}

// True when the storage is at or above the threshold; false, after saying why, when it is below
// or could not be measured.
bool exceeded(SpaceStatus status) {
    if (status == SpaceStatus::unknown) {
        QM_LOG_ERROR("STORAGE_MANAGER: space check status [unknown]: " << static_cast<int>(status));
    }
    return status == SpaceStatus::exceeded;
}

std::string parent_of(const std::string& path) {
    return fs::path(path).parent_path().string();
}

// The last `depth` names of `path` joined with '/': its place below the storage root, as the
// writer names the minutes of its open legs.
std::string relative_to_root(const std::string& path, std::size_t depth) {
    fs::path full(path);
    std::string relative = full.filename().string();
    for (std::size_t level = 1; level < depth; ++level) {
        full = full.parent_path();
        relative = full.filename().string() + "/" + relative;
    }
    return relative;
}

}  // namespace

StorageManager::StorageManager(std::string storage, const CleanupSettings& settings,
                               const writer::OpenLegs* open_legs, FileSystem& files)
    : m_storage(std::move(storage)), m_settings(settings), m_open_legs(open_legs), m_files(files) {
    set_name("qm-storage");
}

// A destructor has no one to report to; `stop` has logged how the join went.
StorageManager::~StorageManager() {
    static_cast<void>(stop());
}

int StorageManager::start() {
    if (m_settings.storage_cleanup_policy == cleanup_policy::DISABLED &&
        m_settings.storage_max_age == 0) {
        return 0;
    }
    return Thread::start();
}

int StorageManager::stop() {
    if (!is_running()) {
        return 0;
    }
    // The flag first: the thread, woken by the promise, reports it, and must see it cleared.
    request_stop();
    m_stop.set_value();
    const int result = join();
    return QM_LOG_THREAD_STOPPED("STORAGE_MANAGER", result);
}

// The wait is measured on the steady clock, so that a change of the wall clock neither skips nor
// repeats a pass.
void StorageManager::run() {
    QM_LOG_THREAD_STARTED("STORAGE_MANAGER");
    const std::future<void> stopped = m_stop.get_future();
    while (is_running()) {
        const std::chrono::microseconds period(timer());
        if (stopped.wait_for(period) != std::future_status::timeout) {
            break;
        }
        cleanup();
    }
    QM_LOG_SYSTEM("STORAGE_MANAGER: received stop indication, running: "
                  << (is_running() ? "true" : "false"));
}

std::uint64_t StorageManager::timer() const {
    const std::uint64_t configured = m_settings.storage_cleanup_timer;
    if (configured != 0) {
        return configured;
    }
    QM_LOG_WARNING("STORAGE_MANAGER: adjusted timer to default value (" << DEFAULT_TIMER_US << ")");
    return DEFAULT_TIMER_US;
}

void StorageManager::cleanup() {
    QM_LOG_SYSTEM("STORAGE_MANAGER: cleanup started");
    do_cleanup();
    QM_LOG_SYSTEM("STORAGE_MANAGER: cleanup stopped");
}

// The checker is built once per pass, so that its warnings about the threshold come once per
// pass and not again before every removal. Age goes first: what it frees the size rule need not
// take from newer minutes. Both share the loop guard: a minute the age rule failed to remove ends
// the size rule when it comes up there.
void StorageManager::do_cleanup() {
    std::set<std::string> removed;
    if (m_settings.storage_max_age != 0) {
        const std::int64_t now =
            std::chrono::duration_cast<std::chrono::microseconds>(m_files.now().time_since_epoch())
                .count();
        remove_aged(m_storage, 0, 0, now, removed);
    }
    const std::unique_ptr<SpaceChecker> checker =
        make_checker(m_settings.storage_cleanup_threshold, m_storage, m_files);
    while (exceeded(check_space(m_files, m_storage, m_settings.storage_cleanup_algo, *checker)) &&
           remove_oldest(removed)) {
    }
}

bool StorageManager::remove_oldest(std::set<std::string>& removed) {
    std::size_t depth = 0;
    switch (m_settings.storage_cleanup_policy) {
        case cleanup_policy::DISABLED:
            QM_LOG_WARNING("STORAGE_MANAGER: cleanup is disabled");
            return false;
        case cleanup_policy::DAY:
            depth = DAY_DEPTH;
            break;
        case cleanup_policy::HOUR:
            depth = HOUR_DEPTH;
            break;
        case cleanup_policy::MINUTE:
            depth = MINUTE_DEPTH;
            break;
        default:
            QM_LOG_ERROR("STORAGE_MANAGER: unknown cleanup policy: "
                         << static_cast<int>(m_settings.storage_cleanup_policy));
            return false;
    }
    const std::string chosen = choose(depth, removed);
    if (chosen.empty() || spared(chosen, depth) || !remove_chosen(chosen, removed)) {
        return false;
    }
    // Then the parents it emptied, the nearest first; never the storage root.
    std::string parent = chosen;
    for (std::size_t level = depth - 1; level >= DAY_DEPTH; --level) {
        parent = parent_of(parent);
        remove_if_empty(parent, level, removed);
    }
    return true;
}

std::string StorageManager::choose(std::size_t depth, std::set<std::string>& removed) {
    for (;;) {
        std::size_t reached = 0;
        const std::string path = walk_oldest(depth, reached);
        if (reached == depth) {
            return path;
        }
        if (reached == 0 || !m_settings.storage_cleanup_remove_empty ||
            !remove_empty(path, reached, removed)) {
            return std::string();
        }
    }
}

std::string StorageManager::walk_oldest(std::size_t depth, std::size_t& reached) const {
    std::string path = m_storage;
    for (reached = 0; reached < depth; ++reached) {
        std::string next = get_path_content_top(m_files, path, LEVELS[reached]);
        if (next.empty()) {
            break;
        }
        path = std::move(next);
    }
    return path;
}

bool StorageManager::remove_empty(const std::string& path, std::size_t depth,
                                  std::set<std::string>& removed) {
    if (spared(path, depth)) {
        return false;
    }
    if (!removed.insert(path).second) {
        QM_LOG_ERROR("STORAGE_MANAGER: infinite removing loop detected for path: " << path);
        return false;
    }
    if (!remove_path(m_files, path)) {
        return false;
    }
    QM_LOG_SYSTEM("STORAGE_MANAGER: removed empty directory: " << path);
    return true;
}

StorageManager::AgeWalk StorageManager::remove_aged(const std::string& path, std::size_t depth,
                                                    std::int64_t start_us, std::int64_t now_us,
                                                    std::set<std::string>& removed) {
    AgeWalk walk;
    const Level& level = LEVELS[depth];
    for (const std::string& entry : sorted_content(m_files, path, level.expected)) {
        if (!is_level_directory(m_files, entry, level)) {
            continue;
        }
        const std::optional<std::int64_t> entry_start =
            start_of(fs::path(entry).filename().string(), level, start_us);
        if (!entry_start) {
            continue;
        }
        const AgeWalk inner =
            depth + 1 == MINUTE_DEPTH
                ? remove_aged_minute(entry, now_us - *entry_start - US_PER_MINUTE, removed)
                : remove_aged(entry, depth + 1, *entry_start, now_us, removed);
        if (inner.removed_any) {
            walk.removed_any = true;
            if (depth + 1 != MINUTE_DEPTH) {
                remove_if_empty(entry, depth + 1, removed);
            }
        }
        if (inner.younger_found) {
            walk.younger_found = true;
            break;
        }
    }
    return walk;
}

StorageManager::AgeWalk StorageManager::remove_aged_minute(const std::string& path,
                                                           std::int64_t age_us,
                                                           std::set<std::string>& removed) {
    const auto max_age = static_cast<std::int64_t>(m_settings.storage_max_age);
    if (age_us < max_age) {
        return AgeWalk{true, false};
    }
    if (spared(path, MINUTE_DEPTH) || remove_once(path, removed) != Removal::done) {
        return AgeWalk{};
    }
    QM_LOG_SYSTEM("STORAGE_MANAGER: removed by age: "
                  << path << ": ended " << describe_duration(age_us) << " ago, storage_max_age "
                  << describe_duration(max_age));
    return AgeWalk{false, true};
}

bool StorageManager::remove_chosen(const std::string& path, std::set<std::string>& removed) {
    const Removal removal = remove_once(path, removed);
    if (removal == Removal::done) {
        QM_LOG_SYSTEM("STORAGE_MANAGER: removed: " << path);
    }
    return removal != Removal::repeated;
}

// The path goes into the set whether or not its removal worked: chosen again, it would only fail
// again, so the pass ends there instead of going round for ever.
StorageManager::Removal StorageManager::remove_once(const std::string& path,
                                                    std::set<std::string>& removed) {
    if (!removed.insert(path).second) {
        QM_LOG_ERROR("STORAGE_MANAGER: infinite removing loop detected for path: " << path);
        return Removal::repeated;
    }
    const std::error_code error = m_files.remove_tree(path);
    if (error) {
        QM_LOG_ERROR("STORAGE_MANAGER: failed to remove, error: " << error.message());
        return Removal::failed;
    }
    if (m_on_removed) {
        const auto at =
            std::chrono::duration_cast<std::chrono::microseconds>(m_files.now().time_since_epoch());
        m_on_removed(fs::path(path).lexically_relative(m_storage).generic_string(),
                     static_cast<std::uint64_t>(at.count()));
    }
    return Removal::done;
}

// An empty parent that holds an open leg is one whose directories the writer has yet to make.
void StorageManager::remove_if_empty(const std::string& path, std::size_t depth,
                                     std::set<std::string>& removed) {
    if (open_legs_in(path, depth) == 0 && remove_path(m_files, path)) {
        QM_LOG_SYSTEM("STORAGE_MANAGER: removed: " << path);
        removed.insert(path);
    }
}

std::size_t StorageManager::open_legs_in(const std::string& path, std::size_t depth) const {
    return m_open_legs == nullptr ? 0 : m_open_legs->count_under(relative_to_root(path, depth));
}

bool StorageManager::spared(const std::string& path, std::size_t depth) const {
    const std::size_t legs = open_legs_in(path, depth);
    if (legs == 0) {
        return false;
    }
    QM_LOG_WARNING("STORAGE_MANAGER: spared " << path << ": it holds " << legs
                                              << " legs still being recorded");
    return true;
}

std::string StorageManager::oldest_at(std::size_t depth) const {
    std::size_t reached = 0;
    std::string path = walk_oldest(depth, reached);
    return reached == depth ? path : std::string();
}

std::string StorageManager::get_day_path_for_cleanup() const {
    return oldest_at(DAY_DEPTH);
}

std::string StorageManager::get_hour_path_for_cleanup() const {
    return oldest_at(HOUR_DEPTH);
}

std::string StorageManager::get_minute_path_for_cleanup() const {
    return oldest_at(MINUTE_DEPTH);
}

SpaceStatus compare_bytes(std::uint64_t used, std::uint64_t threshold) {
    if (threshold <= used) {
        QM_LOG_SYSTEM("STORAGE_MANAGER: space: used (" << used << ") >= threshold (" << threshold
                                                       << "): exceeded");
        return SpaceStatus::exceeded;
    }
    QM_LOG_SYSTEM("STORAGE_MANAGER: space: used (" << used << ") < threshold (" << threshold
                                                   << "): good");
    return SpaceStatus::good;
}

SpaceStatus compare_percent(double used, double threshold) {
    const std::string used_text = utils::str::print_double<2>(used);
    const std::string threshold_text = utils::str::print_double<2>(threshold);
    if (threshold <= used) {
        QM_LOG_SYSTEM("STORAGE_MANAGER: space: used (" << used_text << "%) >= threshold ("
                                                       << threshold_text << "%): exceeded");
        return SpaceStatus::exceeded;
    }
    QM_LOG_SYSTEM("STORAGE_MANAGER: space: used (" << used_text << "%) < threshold ("
                                                   << threshold_text << "%): good");
    return SpaceStatus::good;
}

double used_percent(std::uint64_t used, std::uint64_t base) {
    if (base == 0) {
        return 100;
    }
    return static_cast<double>(used) / static_cast<double>(base) * 100;
}

}  // namespace qm::storage
