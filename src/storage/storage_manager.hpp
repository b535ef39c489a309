#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <set>
#include <string>

#include "core/thread.hpp"
#include "storage/cleanup_settings.hpp"
#include "storage/file_system.hpp"
#include "writer/open_legs.hpp"

// Keeps the recording storage from filling up. Every cleanup period its thread measures the
// storage (the volume, "df", or the files under it, "du") against the threshold and, while the
// measure is at or above it, removes the oldest directory of the recording tree at the level the
// policy names (a minute, an hour or a day), then the emptied parents, one directory per step,
// measuring again after each. The tree's names sort in time order, so the oldest is the first by
// name. Only directories named as the level's are taken: a day "YYYY-MM-DD", an hour "00" to
// "23", a minute "00" to "59"; anything else (a volume's lost+found, an operator's metrics
// directory) is never removed. A pass never removes the same directory twice: a removal that
// changed nothing ends it. An oldest day without hours (policy "hour", "minute") or an oldest
// hour without minutes (policy "minute") ends the pass with nothing removed, pass after pass,
// unless `storage_cleanup_remove_empty` lets the pass remove it, when empty, and go on. Given the
// open legs, a pass never removes a directory that one of them writes into: it ends there.
//
// With `storage_max_age`, every pass first removes, whatever the space, each minute whose end is
// at least that long ago on the wall clock (a minute "12:17" ends at 12:18:00 UTC, so a leg
// started in it is at least the age old when it goes), oldest first, with a line naming its age,
// then the hours and days those removals emptied. It stops at the first younger minute, since all
// after it are younger still. A minute that holds open legs is spared with its WARNING and the
// walk goes on past it; one whose removal fails stays, and the size rule meets it at the loop
// guard. A day that is no calendar date has no age and is left alone. The size rule follows.
//
// Threads: built, started and stopped by the service's main thread, which also runs the first
// pass itself before any thread starts. The thread only reads its own copy of the settings. It
// shares the tree with the media writer without a lock: a leg whose directory is removed under it
// loses its later buffers (counted by the writer), unless the manager was given the open legs to
// spare, which it asks under their own lock.

namespace qm::storage {

// How full the storage is, as one pass of the storage manager measures it ("df": the volume
// that holds it; "du": the files under it) against its threshold (bytes, or a percentage of
// what the recorder may use). Every comparison is logged.
enum class SpaceStatus : int {
    // Below the threshold.
    good = 0,
    // At or above it.
    exceeded = 1,
    // The measure could not be taken.
    unknown = 2,
};

// The comparisons, each logging its line: used bytes against a byte threshold, and a used
// percentage against a percent threshold (both numbers with two decimals).
SpaceStatus compare_bytes(std::uint64_t used, std::uint64_t threshold);
SpaceStatus compare_percent(double used, double threshold);

// `used` as a percentage of what the recorder may use: `used` plus `available`; 100 when that
// is 0. Blocks reserved for the super-user count as neither, so 100% means nothing is left.
double used_percent(std::uint64_t used, std::uint64_t base);

class StorageManager : public Thread {
public:
    // The period when `storage_cleanup_timer` is 0.
    static constexpr std::uint64_t DEFAULT_TIMER_US = 60'000'000;

    // Cleans the recording tree under `storage` as `settings` say, through `files`. Given
    // `open_legs`, never removes a directory that holds one of them (the service gives it when
    // `storage_cleanup_spare_open_legs` or `storage_max_age` is set). Both must outlive the
    // manager.
    StorageManager(std::string storage, const CleanupSettings& settings,
                   const writer::OpenLegs* open_legs = nullptr,
                   FileSystem& files = real_file_system());
    ~StorageManager() override;

    // Starts the thread, unless the policy is "disabled" and no max age is set: then nothing
    // starts and the result is 0. Otherwise the thread-creation result.
    [[nodiscard]] int start() override;
    // Wakes the thread at once (not a pass in progress), joins it and logs how that went. Returns
    // 0 at once when the thread is not running.
    [[nodiscard]] int stop() override;
    // One pass every `timer()`, the first one period after the start.
    void run() override;

    // Told of every day, hour or minute a pass removed with what it held (not of the emptied
    // parents), by its path relative to the storage ("2026-11-24/13/05") and the time of the
    // removal in microseconds since the epoch; called on the thread of the pass. REQUIRES: no pass
    // runs yet.
    using RemovedHook = std::function<void(std::string directory, std::uint64_t removed_at_us)>;
    void on_removed(RemovedHook hook) { m_on_removed = std::move(hook); }

    // The period in microseconds; warns and gives DEFAULT_TIMER_US when it is configured as 0.
    std::uint64_t timer() const;

    // One pass between its "started" and "stopped" lines. A percentage threshold at or above 100
    // is warned about once per pass, before its first measure.
    void cleanup();
    void do_cleanup();

    // The full path of the oldest directory of that level (named as the level's), or "" when
    // there is none. Only the oldest day is looked into for hours, and only its oldest hour for
    // minutes.
    std::string get_day_path_for_cleanup() const;
    std::string get_hour_path_for_cleanup() const;
    std::string get_minute_path_for_cleanup() const;

private:
    // What an age walk did below one directory.
    struct AgeWalk {
        // It met a minute younger than the max age: the walk is over.
        bool younger_found = false;
        bool removed_any = false;
    };
    enum class Removal { repeated, failed, done };

    // Removes every minute below `path`, `depth` levels below the storage root (0: the root
    // itself), whose time starts at `start_us` (microseconds since the epoch; 0 for the root),
    // that is at least the max age old at `now_us`, and the hours and days that emptied.
    AgeWalk remove_aged(const std::string& path, std::size_t depth, std::int64_t start_us,
                        std::int64_t now_us, std::set<std::string>& removed);
    // Removes the minute `path`, `age_us` old since its end, when that is at least the max age and
    // it holds no open leg, with its own line.
    AgeWalk remove_aged_minute(const std::string& path, std::int64_t age_us,
                               std::set<std::string>& removed);
    // Removes the oldest directory of the policy's level and the parents it emptied; false when
    // the pass must end.
    bool remove_oldest(std::set<std::string>& removed);
    // The oldest directory `depth` levels below the storage root (1 a day, 2 an hour, 3 a
    // minute), or "" when there is none. With `storage_cleanup_remove_empty`, an empty day or
    // hour met on the way is removed and the walk starts again; otherwise the pass ends there.
    std::string choose(std::size_t depth, std::set<std::string>& removed);
    // Walks down from the storage root through the oldest directory of each level, at most
    // `depth` levels. Returns the deepest directory reached, `reached` levels below the root
    // (0: the root itself, which had no day).
    std::string walk_oldest(std::size_t depth, std::size_t& reached) const;
    // The directory `depth` levels down that `walk_oldest` reaches, or "".
    std::string oldest_at(std::size_t depth) const;
    // Removes `path`, a day or an hour without its level's directories, when it is empty, with its
    // own line. False when it was not removed, which ends the pass.
    bool remove_empty(const std::string& path, std::size_t depth, std::set<std::string>& removed);
    // The open legs in `path`, `depth` levels below the storage root; 0 when none are tracked.
    std::size_t open_legs_in(const std::string& path, std::size_t depth) const;
    // True, after a WARNING that says so, when `path` holds open legs: the size rule ends its pass
    // there, since everything after it is newer; the age rule goes on past it.
    bool spared(const std::string& path, std::size_t depth) const;
    // Removes `path` with everything in it, unless this pass chose it before, with its line. False
    // when the pass must end.
    bool remove_chosen(const std::string& path, std::set<std::string>& removed);
    // Removes `path` with everything in it, unless this pass tried it before (the loop guard),
    // saying why when it does not.
    Removal remove_once(const std::string& path, std::set<std::string>& removed);
    // Removes `path`, `depth` levels below the storage root, if it is an empty directory now and
    // holds no open leg.
    void remove_if_empty(const std::string& path, std::size_t depth,
                         std::set<std::string>& removed);

    const std::string m_storage;
    const CleanupSettings m_settings;
    const writer::OpenLegs* const m_open_legs;
    FileSystem& m_files;
    RemovedHook m_on_removed;
    std::promise<void> m_stop;
};

}  // namespace qm::storage
