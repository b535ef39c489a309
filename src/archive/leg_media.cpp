#include "archive/leg_media.hpp"

#include <stdexcept>
#include <system_error>

#include "archive/s3_client.hpp"
#include "archive/s3_object_source.hpp"
#include "utils/path_inside.hpp"

namespace qm::archive {
namespace {

// The recording in a leg's directory, and in the archive beside its "leg.json".
constexpr const char* MEDIA_FILE = "media.qm";
constexpr const char* URL_SCHEME = "s3://";

// The bucket and the key of the recording under an archive_url "s3://BUCKET/PREFIX/"; false when
// the URL is not of that form.
bool parse_archive_url(const std::string& url, LegMedia& media) {
    if (!url.starts_with(URL_SCHEME) || !url.ends_with('/')) {
        return false;
    }
    const std::string rest = url.substr(std::string(URL_SCHEME).size());
    const auto slash = rest.find('/');
    if (slash == 0 || slash == std::string::npos) {
        return false;
    }
    media.bucket = rest.substr(0, slash);
    media.key = rest.substr(slash + 1) + MEDIA_FILE;
    return true;
}

}  // namespace

LegMedia locate_leg_media(const catalog::CatalogRow& row,
                          const std::filesystem::path& storage_root) {
    LegMedia media;
    if (row.state == catalog::RowState::REMOVED) {
        media.state = LegMediaState::REMOVED;
        return media;
    }
    const std::optional<std::filesystem::path> inside =
        utils::path_inside(storage_root, std::filesystem::path(row.summary.path) / MEDIA_FILE);
    if (!inside) {
        media.state = LegMediaState::OUTSIDE_STORAGE;
        return media;
    }
    std::error_code error;
    if (std::filesystem::is_regular_file(*inside, error)) {
        media.state = LegMediaState::LOCAL;
        media.file = *inside;
        return media;
    }
    if (row.state == catalog::RowState::ARCHIVED && row.archive_url &&
        parse_archive_url(*row.archive_url, media)) {
        media.state = LegMediaState::ARCHIVED;
        return media;
    }
    media.state = LegMediaState::GONE;
    return media;
}

std::string unavailable_text(const catalog::CatalogRow& row, LegMediaState state) {
    const std::string& uuid = row.summary.uuid;
    switch (state) {
        case LegMediaState::REMOVED:
            return "leg " + uuid + " has been removed";
        case LegMediaState::OUTSIDE_STORAGE:
            return "leg " + uuid + " lies outside the storage";
        case LegMediaState::LOCAL:
        case LegMediaState::ARCHIVED:
        case LegMediaState::GONE:
            break;
    }
    return "the recording of leg " + uuid + " has gone";
}

std::unique_ptr<recording::ByteSource> open_leg_media(const LegMedia& media,
                                                      const std::optional<StoreAccess>& store) {
    if (media.state == LegMediaState::LOCAL) {
        return std::make_unique<recording::FileSource>(media.file);
    }
    if (media.state != LegMediaState::ARCHIVED || !store) {
        throw std::invalid_argument("open_leg_media: no local file and no store to read from");
    }
    auto client = std::make_unique<S3Client>(
        S3Endpoint(store->endpoint, media.bucket, store->region, store->addressing),
        store->credentials);
    return std::make_unique<S3ObjectSource>(std::move(client), media.key);
}

}  // namespace qm::archive
