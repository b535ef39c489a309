#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

// How one archiver takes legs from the catalogue to the store. Plain values; any thread.

namespace qm::archive {

// A recorder ("host:port") whose legs an archiver takes, and the storage it records into.
struct RecorderStorage {
    std::string recorder;
    std::filesystem::path storage;
};

struct ArchiveSettings {
    // The archiver's name in the catalogue's claims: unique among the archivers sharing it, and
    // the same across restarts, so that a restart frees what a killed run held at once.
    std::string name;
    // The recorders whose legs this archiver takes, each with its storage: an archiver reads the
    // legs' files, so it takes only those of recorders whose storage it sees. Empty: every
    // recorder's, all in `storage`.
    std::vector<RecorderStorage> recorders;
    // The storage of every recorder's legs when `recorders` is empty.
    std::filesystem::path storage;
    // Prepended to each leg's path to make its objects' keys ("calls/" gives
    // "calls/2026-11-24/13/05/<uuid>/media.qm").
    std::string prefix;
    // Remove a leg's directory once its objects are verified in the store and it is marked
    // archived.
    bool delete_local = false;
    // How long a claim holds before another archiver may take the leg: long enough for the
    // largest leg's upload.
    std::chrono::seconds lease{300};
    // Legs claimed at a time.
    std::size_t batch = 16;
    // How long the archiver waits before it asks the catalogue again when it had nothing to do.
    std::chrono::milliseconds idle_wait{2000};
};

}  // namespace qm::archive
