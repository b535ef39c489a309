#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

// The file-system calls the storage cleanup makes, and the wall clock it ages the recording tree
// by, behind one small interface, so that a test can hand the cleanup the space figures of any
// volume, the failures of any call and any "now". The cleanup gets
// the real implementation unless it is given another one.
//
// Threads: the storage manager calls it from its own thread (and from the service's main thread
// for the first pass); implementations keep no state of their own between calls.

namespace qm::storage {

class FileSystem {
public:
    // What the volume that holds a path reports, in bytes.
    struct Space {
        std::uint64_t capacity = 0;
        std::uint64_t free = 0;
        // Free bytes an unprivileged process may use; blocks reserved for root are not in it.
        std::uint64_t available = 0;
    };

    enum class Kind { missing, directory, other };

    virtual ~FileSystem() = default;

    // The volume that holds `path` ("df"). Throws an exception (a std::exception, whose message
    // the cleanup logs, or anything else) when it cannot be measured.
    virtual Space space(const std::string& path) = 0;
    // The sizes of the regular files under `path` added up, symbolic links to directories not
    // followed ("du"). Throws as `space` does; any failure fails the whole walk.
    virtual std::uint64_t used_bytes(const std::string& path) = 0;
    // What `path` is; `missing` also when it cannot be looked at.
    virtual Kind kind(const std::string& path) = 0;
    // Appends the full path of every entry of the directory `path`, one level, in no order. A
    // failure ends the listing where it happened, without a word.
    virtual void list(const std::string& path, std::vector<std::string>& entries) = 0;
    // Removes `path` with everything under it.
    virtual std::error_code remove_tree(const std::string& path) = 0;
    // Removes `path`, a file or an empty directory; a directory that holds something gives
    // ENOTEMPTY.
    virtual std::error_code remove(const std::string& path) = 0;
    // The wall-clock time now; the recording tree's minutes are named in UTC from the same clock's
    // epoch.
    virtual std::chrono::system_clock::time_point now() = 0;
};

// The process's real file system, through Boost.Filesystem. One instance, never destroyed.
FileSystem& real_file_system();

}  // namespace qm::storage
