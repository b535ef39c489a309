#pragma once

#include <cstdint>

// What the storage cleanup is told by the recorder's configuration (the storage root comes beside
// it). The storage manager keeps its own copy, taken when it is built.
namespace qm::storage {

// How used storage space is measured.
enum class cleanup_algo : std::int32_t {
    // The whole volume, as df reports it.
    DF = 0,
    // The files under the storage directory, as du adds them up.
    DU = 1,
};

// Which directories a cleanup pass removes, oldest first.
enum class cleanup_policy : std::int32_t {
    DISABLED = 0,
    MINUTE = 1,
    HOUR = 2,
    DAY = 3,
};

struct CleanupSettings {
    cleanup_algo storage_cleanup_algo = cleanup_algo::DF;
    cleanup_policy storage_cleanup_policy = cleanup_policy::HOUR;
    // Bytes when positive, a percentage negated when not: -90 is 90 %.
    long double storage_cleanup_threshold = -90;
    // Period of the cleanup pass, in microseconds.
    std::uint64_t storage_cleanup_timer = 60000000;
    // Never remove a directory that holds a leg still being recorded.
    bool storage_cleanup_spare_open_legs = false;
    // Remove an empty day, hour or minute met on the way instead of ending the pass there.
    bool storage_cleanup_remove_empty = false;
    // Every minute directory at least this old (its end to now), in microseconds, is removed on
    // every pass whatever the space; 0 keeps minutes for as long as the space allows.
    std::uint64_t storage_max_age = 0;
};

}  // namespace qm::storage
