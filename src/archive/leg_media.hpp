#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "archive/s3_credentials.hpp"
#include "archive/s3_endpoint.hpp"
#include "catalog/catalog_row.hpp"
#include "recording/byte_source.hpp"

// Where a catalogued leg's "media.qm" is read from, for the tools and `serve`: the local file when
// it is in the storage, else, for an archived leg, the object the archiver uploaded (bucket and key
// from the row's archive_url; the store's endpoint is the reader's to give: the URL does not hold
// it). Plain functions; any thread (a source then belongs to the thread that uses it).

namespace qm::archive {

// How to reach the store the archive_urls name buckets of.
struct StoreAccess {
    // "http(s)://HOST[:PORT]".
    std::string endpoint;
    std::string region;
    S3Addressing addressing = S3Addressing::virtual_hosted;
    S3Credentials credentials;
};

enum class LegMediaState {
    // The file is in the storage.
    LOCAL,
    // Only the archive has it.
    ARCHIVED,
    // The catalogue says the leg was removed.
    REMOVED,
    // Neither the storage nor the archive has it.
    GONE,
    // The row's path leads out of the storage.
    OUTSIDE_STORAGE,
};

struct LegMedia {
    LegMediaState state = LegMediaState::GONE;
    // LOCAL: the file, canonical, inside the storage.
    std::filesystem::path file;
    // ARCHIVED: the bucket and the key of the uploaded "media.qm".
    std::string bucket;
    std::string key;
};

// REQUIRES: `storage_root` canonical. An archived row whose archive_url is not
// "s3://BUCKET/PREFIX/" is GONE: there is nothing to read it from.
LegMedia locate_leg_media(const catalog::CatalogRow& row,
                          const std::filesystem::path& storage_root);

// Why the leg's recording cannot be read, in one line, for REMOVED, GONE and OUTSIDE_STORAGE:
// "leg UUID has been removed", "the recording of leg UUID has gone", "leg UUID lies outside the
// storage".
std::string unavailable_text(const catalog::CatalogRow& row, LegMediaState state);

// A reader of `media`: the local file, or the archived object through a client of `store`.
// THROWS: std::runtime_error with one line: S3Error for a store that refuses or cannot be reached
// (or lacks the object), S3EndpointError for a bad endpoint, recording::RecordingError for a
// local file that cannot be opened, std::invalid_argument when `media` is ARCHIVED and `store` is
// empty or `media` is neither LOCAL nor ARCHIVED.
std::unique_ptr<recording::ByteSource> open_leg_media(const LegMedia& media,
                                                      const std::optional<StoreAccess>& store);

}  // namespace qm::archive
