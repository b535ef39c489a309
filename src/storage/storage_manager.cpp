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
#include <string_view>
#include <vector>

#include "log/logger.hpp"
#include "utils/str.hpp"

namespace qm::storage {
namespace {

namespace fs = boost::filesystem;

constexpr std::uint64_t NOT_MEASURED = std::numeric_limits<std::uint64_t>::max();

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

// The levels of the tree below the storage root, and the room a listing of the level reserves.
struct Level {
    std::size_t expected;
    bool (*is_level)(const std::string&);
};
constexpr Level LEVELS[] = {{16, is_day}, {24, is_hour}, {60, is_minute}};
constexpr std::size_t DAY_DEPTH = 1;
constexpr std::size_t HOUR_DEPTH = 2;
constexpr std::size_t MINUTE_DEPTH = 3;

// The first directory of `path` by name whose name is one of the level's (`is_level`): the oldest,
// since the tree's names sort in time order. Anything else in the tree (plain files, a volume's
// lost+found, an operator's own directories) is never taken for a day, an hour or a minute.
std::string get_path_content_top(FileSystem& files, const std::string& path, std::size_t expected,
                                 bool (*is_level)(const std::string&)) {
    std::vector<std::string> list;
    list.reserve(expected);
    get_path_content(files, path, list);
    std::sort(list.begin(), list.end());
    const auto oldest = std::find_if(list.begin(), list.end(), [&](const std::string& entry) {
        return is_level(fs::path(entry).filename().string()) &&
               files.kind(entry) == FileSystem::Kind::directory;
    });
    return oldest == list.end() ? std::string() : *oldest;
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
    if (m_settings.storage_cleanup_policy == cleanup_policy::DISABLED) {
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
// pass and not again before every removal.
void StorageManager::do_cleanup() {
    const std::unique_ptr<SpaceChecker> checker =
        make_checker(m_settings.storage_cleanup_threshold, m_storage, m_files);
    std::set<std::string> removed;
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
        const Level& level = LEVELS[reached];
        std::string next = get_path_content_top(m_files, path, level.expected, level.is_level);
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

// The chosen path goes into the set whether or not its removal worked: chosen again, it would
// only fail again, so the pass ends there instead of going round for ever.
bool StorageManager::remove_chosen(const std::string& path, std::set<std::string>& removed) {
    if (!removed.insert(path).second) {
        QM_LOG_ERROR("STORAGE_MANAGER: infinite removing loop detected for path: " << path);
        return false;
    }
    const std::error_code error = m_files.remove_tree(path);
    if (error) {
        QM_LOG_ERROR("STORAGE_MANAGER: failed to remove, error: " << error.message());
        return true;
    }
    QM_LOG_SYSTEM("STORAGE_MANAGER: removed: " << path);
    return true;
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
